// rtpav1pay on temporal units made by hand.

#include <algorithm>
#include <random>
#include <sstream>

#include <gmock/gmock.h>
#include <simulated_board/SimulatedBoard.h>

#include "support/Av1Depacketizer.h"
#include "support/Pipeline.h"

namespace {

using testing::HasSubstr;

// "12 00 32" and the like.
std::string bytes(const std::string& hex) {
  std::istringstream numbers(hex);
  numbers >> std::hex;
  std::string result;
  for (unsigned number = 0; numbers >> number;) {
    result.push_back(static_cast<char>(number));
  }
  return result;
}

class Payloader : public Pipeline {
 public:
  explicit Payloader(const std::string& properties)
      : Pipeline(
            "appsrc name=in format=time caps=\"video/x-av1,parsed=true,"
            "stream-format=obu-stream,alignment=tu\" ! rtpav1pay " +
            properties + " ! appsink name=out sync=false") {}

  void send(const std::string& unit) { push(bufferOf(unit)); }
};

TEST(Av1PayloaderName, IsLeftToAnElementThatHasIt) {
  const auto provide = [](GstPlugin* plugin) -> gboolean {
    return gst_element_register(plugin, "rtpav1pay", GST_RANK_NONE, GST_TYPE_PIPELINE);
  };
  ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "foreign", "-",
                                         provide, "1", "LGPL", "-", "-", "-"));
  std::string error;
  EXPECT_TRUE(simulated_board::registerElements(nullptr, "rtpav1pay", error)) << error;
  GstRegistry* const registry = gst_registry_get();
  g_autoptr(GstPluginFeature) present = gst_registry_lookup_feature(registry, "rtpav1pay");
  EXPECT_STREQ(gst_plugin_feature_get_plugin_name(present), "foreign");
  gst_registry_remove_feature(registry, present);
}

class Av1PayloaderTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string error;
    ASSERT_TRUE(simulated_board::registerElements(nullptr, "rtpav1pay", error)) << error;
  }
};

// Temporal delimiter 12, sequence header 0a, metadata 2a, frame 32 (with a layer 36), tile list 42,
// padding 7a; a frame begins with 10 if it is a key frame, 30 if not, 80 if it was there before.
TEST_F(Av1PayloaderTest, PacksByTheFormat) {
  const std::pair<const char*, std::vector<std::string>> rows[] = {
      {"12 00 0a 04 00 00 00 28 32 03 10 aa bb", {"28 05 08 00 00 00 28 30 10 aa bb"}},
      {"12 00 32 02 30 cc", {"10 30 30 cc"}},
      {"32 02 10 cc", {"10 30 10 cc"}},
      {"0a 04 00 00 00 28 32 01 30", {"20 05 08 00 00 00 28 30 30"}},
      {"0a 04 00 00 00 28 32 01 80", {"20 05 08 00 00 00 28 30 80"}},
      {"0a 02 19 40 32 01 30", {"28 03 08 19 40 30 30"}},  // of the kind for a still picture
      {"0a 02 19 40 2a 01 a1 32 01 10", {"38 03 08 19 40 02 28 a1 30 10"}},
      {"2a 01 a1 2a 01 a2 2a 01 a3 32 01 30", {"00 02 28 a1 02 28 a2 02 28 a3 02 30 30"}},
      {"12 00 30 30 cc", {"10 30 30 cc"}},
      {"42 01 00 32 02 30 cc 7a 01 80", {"20 03 30 30 cc 78 80"}},
      {"0a 02 19 40 36 00 01 10 2e 08 01 a1 36 08 01 30 2a 01 a2",
       {"28 03 08 19 40 34 00 10", "20 03 2c 08 a1 34 08 30", "10 28 a2"}},
      {"0a 02 19 40 36 20 01 10", {"20 03 08 19 40 34 20 10"}},
      {"32 01 30 0a 02 19 40 32 01 10", {"10 30 30", "20 03 08 19 40 30 10"}},
      {"12 00", {}},
      {"", {}},
  };
  for (const auto& [unit, expected] : rows) {
    SCOPED_TRACE(unit);
    Payloader payloader("");
    payloader.send(bytes(unit));
    payloader.finish();
    const std::vector<std::string> packets = payloader.pullAll();
    ASSERT_EQ(packets.size(), expected.size());
    for (std::size_t i = 0; i < packets.size(); ++i) {
      EXPECT_EQ(packets[i].substr(12), bytes(expected[i]));
    }
  }
}

TEST_F(Av1PayloaderTest, CutsAndFillsPacketsAtEverySize) {
  constexpr std::size_t kSizes[] = {0,   1,   6,   7,   8,   20,    125,   126,
                                    127, 128, 129, 300, 900, 16381, 16384, 40000};
  std::mt19937 random(1);
  for (const unsigned mtu : {28U, 29U, 40U, 140U, 141U, 142U, 143U, 300U, 1400U, 16400U, 100000U}) {
    SCOPED_TRACE(mtu);
    std::vector<Av1Depacketizer::TemporalUnit> sent;
    Payloader payloader("mtu=" + std::to_string(mtu));
    for (int i = 0; i < 20; ++i) {
      sent.emplace_back();
      for (std::size_t obus = random() % 7 + 1; obus > 0; --obus) {
        std::string obu(1, '\x30');
        std::generate_n(std::back_inserter(obu), kSizes[random() % std::size(kSizes)],
                        [&] { return static_cast<char>(random()); });
        sent.back().push_back(obu);
      }
      payloader.send(lowOverhead(sent.back()));
    }
    payloader.finish();
    Av1Depacketizer depacketizer;
    for (const std::string& packet : payloader.pullAll()) {
      EXPECT_LE(packet.size(), mtu);
      ASSERT_NO_THROW(depacketizer.take(packet));
      // 8 bytes or more, with their size, would have gone in too.
      EXPECT_TRUE(depacketizer.isComplete() || packet.size() + 10 >= mtu) << packet.size();
    }
    EXPECT_TRUE(depacketizer.units() == sent);
  }
}

TEST_F(Av1PayloaderTest, DropsMalformedUnitsWithAWarning) {
  const std::pair<const char*, const char*> rows[] = {
      {"12 00 b2 01 30", "OBU 1, at byte 2 of 5: its forbidden bit is set"},
      {"36", "extension header is missing"},
      {"32", "size field"},
      {"32 80 80 80 80 80 80 80 80 00", "size field"},
      {"32 ff ff ff ff 1f 30", "size field"},
      {"32 ff ff ff ff 0f 30", "longer than the temporal unit"},
      {"32 02 30", "longer than the temporal unit"},
      {"0a 01 19 32 01 30", "sequence header ends too soon"},
      {"0a 09 04 00 00 00 00 00 00 00 02", "sequence header ends too soon"},
  };
  for (const auto& [unit, message] : rows) {
    SCOPED_TRACE(unit);
    Payloader payloader("");
    payloader.send(bytes(unit));
    payloader.send(bytes("32 01 30"));
    payloader.finish();
    const std::vector<std::string> packets = payloader.pullAll();
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets[0].substr(12), bytes("10 30 30"));
    g_autoptr(GstMessage) warning = payloader.message(GST_MESSAGE_WARNING);
    ASSERT_NE(warning, nullptr);
    g_autofree gchar* details = nullptr;
    gst_message_parse_warning(warning, nullptr, &details);
    EXPECT_THAT(details, HasSubstr(message));
  }
}

// A sequence header from its first bits, in groups as its syntax has them.
std::string sequenceHeader(std::string bits) {
  bits.erase(std::remove(bits.begin(), bits.end(), ' '), bits.end());
  std::string obu = "\x08";
  for (std::size_t i = 0; i < bits.size(); i += 8) {
    const std::string byte = (bits.substr(i) + "0000000").substr(0, 8);
    obu.push_back(static_cast<char>(std::stoi(byte, nullptr, 2)));
  }
  return obu;
}

TEST_F(Av1PayloaderTest, CapsDescribeTheStream) {
  const std::string tick(32, '0');
  const std::string noLayers = " 00000 000000000000 ";
  // Sequence header; profile, level and tier in the caps.
  const std::pair<std::string, const char*> rows[] = {
      {"000 1 1 00101", "0 5 0"},
      {"001 0 0 0 0" + noLayers + "00111 1", "1 7 0"},
      {"010 0 0 0 0" + noLayers + "01000 1", "2 8 1"},
      {"000 0 0 1" + tick + tick + "0 0 0" + noLayers + "01101 0", "0 13 0"},
      {"000 0 0 1" + tick + tick + "1 00101 1 00000" + tick + "00000 00000 0" + noLayers +
           "11111 1",
       "0 31 1"},
      {"000 0 0 0 0 00000 111111111111 00000", "0 - 0"},
      {"000 0 0 0 0 00001 111111111111 00000", "0 0 0"},
  };
  Payloader payloader("clock-rate=45000");
  for (const auto& [bits, expected] : rows) {
    SCOPED_TRACE(bits);
    payloader.send(lowOverhead({sequenceHeader(bits), "00"}));
    g_autoptr(GstSample) sample = payloader.pull();
    ASSERT_NE(sample, nullptr);
    g_autofree gchar* caps = gst_caps_to_string(gst_sample_get_caps(sample));
    EXPECT_THAT(caps, HasSubstr("video, clock-rate=(int)45000, encoding-name=(string)AV1"));
    const auto field = [&sample](const char* name) {
      const char* const value =
          gst_structure_get_string(gst_caps_get_structure(gst_sample_get_caps(sample), 0), name);
      return std::string(value != nullptr ? value : "-");
    };
    EXPECT_EQ(field("profile") + " " + field("level-idx") + " " + field("tier"), expected);
  }
}

}  // namespace
