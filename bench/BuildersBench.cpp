// The builders, all on a complete NVIDIA board, each beside one string of the text's exact length
// to which the same pieces are appended, numbers as finished text.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <media_backend/GstVideoBackend.h>

#include "Ratios.h"
#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

const std::vector<Ratio> kRatios = {
    {"inputConversionChain() / its pieces appended", "builder/0", "pieces/0", 1.3},
    {"transportEncoderChain() / its pieces appended", "builder/1", "pieces/1", 1.3},
    {"rtspPayloaderChain() / its pieces appended", "builder/2", "pieces/2", 1.3},
    {"httpUploadChain() / its pieces appended", "builder/3", "pieces/3", 1.3},
    {"httpEncoderChain() / its pieces appended", "builder/4", "pieces/4", 1.3},
    {"recorderPipeline() / its pieces appended", "builder/5", "pieces/5", 1.3},
};

const GstVideoBackend& backend() {
  static const GstVideoBackend kBackend(nvidiaProfile());
  return kBackend;
}

const GstVideoBackend::EncoderConfig kConfig = {Codec::H265, 4000000, 1, 1, 30, 30};

using Builder = std::string (*)();
const Builder kBuilders[] = {
    [] { return backend().inputConversionChain("bt709"); },
    [] { return backend().transportEncoderChain(kConfig, "-1"); },
    [] { return backend().rtspPayloaderChain(Codec::H265, 1400); },
    [] { return backend().httpUploadChain("bt709"); },
    [] { return backend().httpEncoderChain(kConfig); },
    [] { return backend().recorderPipeline(kConfig, 60, true, true); },
};

const std::vector<std::string_view> kPieces[] = {
    {"  ! ", "nvvidconv", " ", "  ! ", "video/x-raw(memory:NVMM),format=NV12",
     ",colorimetry=", "bt709", " "},
    {"  ! ",
     "nvv4l2h265enc",
     " name=encoder maxperf-enable=1 ",
     "           iframeinterval=",
     "30",
     " idrinterval=",
     "30",
     " control-rate=",
     "1",
     " ",
     "           bitrate=",
     "4000000",
     " ",
     "           preset-level=",
     "1",
     " ",
     "  ! ",
     "h265parse",
     " config-interval=",
     "-1",
     " "},
    {"  ! ", "video/x-h265", ",stream-format=byte-stream,alignment=au ", "  ! ", "rtph265pay",
     " name=pay0 pt=96 mtu=", "1400", " config-interval=1 "},
    {"! ", "nvvideoconvert", " nvbuf-memory-type=0 ", "! ", "video/x-raw(memory:NVMM),format=NV12",
     ",colorimetry=", "bt709", " "},
    {"! ", "nvv4l2h265enc", " name=encoder ", "bitrate=", "4000000",
     " insert-sps-pps=true maxperf-enable=1 iframeinterval=30 ", "! ", "video/x-h265",
     ",stream-format=byte-stream ", "! appsink name=sink emit-signals=true sync=false"},
    {"appsrc name=mysrc is-live=true block=false format=time do-timestamp=false "
     "    ! queue max-size-buffers=1 leaky=downstream ",
     "  ! ",
     "nvvidconv",
     " ",
     "  ! ",
     "video/x-raw(memory:NVMM),format=NV12",
     " ",
     "    ! ",
     "nvv4l2h265enc",
     " name=enc maxperf-enable=1 output-io-mode=5",
     "        insert-sps-pps=true iframeinterval=",
     "30",
     " idrinterval=",
     "30",
     " control-rate=",
     "1",
     " ",
     "        bitrate=",
     "4000000",
     " preset-level=",
     "1",
     " ",
     "    ! ",
     "h265parse",
     " name=vparse config-interval=1 ",
     "    ! ",
     "video/x-h265",
     ",alignment=au ",
     "    ! queue ! sink.video ",
     "appsrc name=klvsrc is-live=true block=false format=time do-timestamp=false "
     "max-buffers=8 "
     "       caps=\"meta/x-klv,parsed=true\" "
     "    ! queue max-size-buffers=8 leaky=downstream ! sink.subtitle_0 ",
     "appsrc name=audiosrc is-live=true block=false format=time do-timestamp=false "
     "max-buffers=64 "
     "       caps=\"audio/x-opus,channel-mapping-family=(int)0,channels=(int)1,"
     "rate=(int)48000\" "
     "       ! opusparse ! queue max-size-buffers=64 leaky=downstream ! sink.audio_0 ",
     "splitmuxsink name=sink muxer-factory=mpegtsmux "
     "             max-size-time=",
     "60000000000"},
};

void builder(benchmark::State& state) {
  const Builder build = kBuilders[state.range(0)];
  for (auto _ : state) {
    benchmark::DoNotOptimize(build());
  }
}

void pieces(benchmark::State& state) {
  const std::string whole = kBuilders[state.range(0)]();
  std::vector<std::string_view> parts = kPieces[state.range(0)];
  std::string text;
  for (auto _ : state) {
    benchmark::DoNotOptimize(parts.data());
    text = std::string();
    text.reserve(whole.size());
    for (const std::string_view part : parts) {
      text.append(part);
    }
    benchmark::DoNotOptimize(text);
  }
  if (text != whole) {
    state.SkipWithError("these are not the builder's pieces");
  }
}

}  // namespace

BENCHMARK(builder)->DenseRange(0, 5);
BENCHMARK(pieces)->DenseRange(0, 5);

int main(int argc, char** argv) {
  return runAndCompare(argc, argv, kRatios);
}
