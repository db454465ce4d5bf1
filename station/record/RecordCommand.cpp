#include "record/RecordCommand.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>
#include <thread>

#include "base/StationError.h"
#include "base/StopSignal.h"
#include "record/KlvEncoder.h"
#include "record/OpusFile.h"
#include "record/Progress.h"
#include "record/Recorder.h"
#include "record/SegmentFiles.h"
#include "record/SensorModel.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr std::chrono::milliseconds kEncoderTimeout{3000};
// How far fallback sound stays behind the video: packets may be that late, less one of them.
constexpr std::chrono::milliseconds kAudioLag{250};

// The recording's sound: the track, and who delivers it.
class Sound {
 public:
  // Reads the file; throws StationError (Source).
  explicit Sound(const AudioOptions& options) : options_(options), track_(options.track) {
    if (!options.file.empty()) {
      packets_ = readOpusFile(options.file);
    }
  }

  void start(steady_clock::time_point time) {
    if (!packets_.empty()) {
      receiver_.emplace(std::move(packets_), options_.reception, track_, time);
    }
  }

  // Pushes what there is of the track while the video has come to `videoTime`.
  void feed(Recorder& recorder, nanoseconds videoTime) {
    push(recorder, track_.take(videoTime - kAudioLag, steady_clock::now()));
  }

  void finish(Recorder& recorder, nanoseconds end) {
    if (receiver_) {
      receiver_->stopAt(end);
    }
    push(recorder, track_.finish(end));
  }

  void printSummary() const {
    const AudioTrack::Statistics statistics = track_.statistics();
    std::printf("audio: %llu packets received, %llu late, %llu fallback frames\n",
                static_cast<unsigned long long>(statistics.received),
                static_cast<unsigned long long>(statistics.late),
                static_cast<unsigned long long>(statistics.fallback));
  }

 private:
  static void push(Recorder& recorder, const AudioTrack::Frames& frames) {
    for (const media_backend::EncodedAudioFrame& frame : frames) {
      recorder.pushAudio(frame);
    }
  }

  const AudioOptions& options_;
  AudioTrack track_;
  std::vector<OpusPacket> packets_;
  std::optional<AudioReceiver> receiver_;
};

std::uint64_t frameLimit(const RecordOptions& options) {
  if (options.durationSeconds <= 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  return static_cast<std::uint64_t>(
      std::llround(std::ceil(options.durationSeconds * options.camera.fps)));
}

nanoseconds timeOf(std::uint64_t index, unsigned int fps) {
  return nanoseconds(gst_util_uint64_scale(index, GST_SECOND, fps));
}

// Number of the frame behind number `index`: a device may leave some out, and none comes late.
std::uint64_t nextNumber(const Camera& camera, std::uint64_t index,
                         steady_clock::time_point begin) {
  const nanoseconds elapsed = steady_clock::now() - begin;
  const std::uint64_t due = gst_util_uint64_scale(static_cast<std::uint64_t>(elapsed.count()),
                                                  camera.options().fps, GST_SECOND);
  return camera.pacesItself() ? std::max(index + 1, due) : index + 1;
}

// Everything that a host does for one frame.
void recordFrame(Recorder& recorder, lumora::FramePool& pool, lumora::LumoraPicture& picture,
                 std::uint64_t index, system_clock::time_point start,
                 const RecordOptions& options) {
  const nanoseconds elapsed = timeOf(index, options.camera.fps);
  std::vector<std::uint8_t> klv;
  if (options.klv) {
    writeSensorMetadata(
        picture, start + std::chrono::duration_cast<system_clock::duration>(elapsed), elapsed);
    klv = encodeMisbSt0601(picture);
  }
  std::shared_ptr<lumora::ExportedFrame> frame = pool.exportPicture(picture);
  if (frame == nullptr) {
    throw StationError(ExitCode::Pipeline, "no memory for a frame");
  }
  recorder.push(std::move(frame), index, klv);
}

void printSummary(const Recorder& recorder, nanoseconds recorded, const RecordOptions& options) {
  const Recorder::Statistics statistics = recorder.statistics();
  std::printf("recorded %llu frames, %llu dropped, %llu segments, %.1f s, %s in %s\n",
              static_cast<unsigned long long>(statistics.pushed),
              static_cast<unsigned long long>(statistics.dropped),
              static_cast<unsigned long long>(statistics.segments),
              std::chrono::duration<double>(recorded).count(),
              Progress::bitRate(statistics.bytes, recorded).c_str(),
              options.folder.string().c_str());
}

}  // namespace

void record(const GstVideoBackend& backend, const RecordOptions& options) {
  std::optional<Sound> sound;
  if (options.audio.isWanted()) {
    sound.emplace(options.audio);
  }
  const std::unique_ptr<Camera> camera = Camera::open(options.camera);
  std::shared_ptr<lumora::LumoraPicture> picture = camera->next();
  if (picture == nullptr) {
    throw StationError(ExitCode::Source, "source has no pictures: " + options.camera.source);
  }
  prepareOutputFolder(options.folder);

  const StopSignal stop;
  Recorder recorder(backend, {options.encoder, options.segmentSeconds, options.klv,
                              sound.has_value(), camera->options().width, camera->options().height,
                              options.camera.fps, camera->colorimetry(), options.folder});
  const system_clock::time_point start = system_clock::now();
  recorder.setStart(start);

  lumora::FramePool pool;
  Progress progress;
  const std::uint64_t limit = frameLimit(options);
  steady_clock::time_point base = steady_clock::now();
  std::uint64_t index = 0;
  const auto finish = [&] {
    if (sound) {
      sound->finish(recorder, timeOf(index, options.camera.fps));
    }
    recorder.finish();
    progress.end();
  };
  try {
    for (; picture != nullptr && index < limit && !stop.requested();
         index = nextNumber(*camera, index, base)) {
      std::this_thread::sleep_until(base + timeOf(index, options.camera.fps));
      recordFrame(recorder, pool, *picture, index, start, options);
      if (index == 0) {
        recorder.awaitEncoder(kEncoderTimeout);
        base = steady_clock::now();
        if (sound) {
          sound->start(base);
        }
      }
      if (sound) {
        sound->feed(recorder, timeOf(index, options.camera.fps));
      }
      recorder.check();
      progress.update(recorder, timeOf(index + 1, options.camera.fps));
      picture = index + 1 < limit ? camera->next() : nullptr;
    }
  } catch (const StationError& error) {
    progress.end();
    // A source that fails leaves what was recorded so far to be ended properly.
    if (error.code() == ExitCode::Source) {
      finish();
    }
    throw;
  }
  finish();
  if (sound) {
    sound->printSummary();
  }
  printSummary(recorder, timeOf(index, options.camera.fps), options);
}

}  // namespace station
