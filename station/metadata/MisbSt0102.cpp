#include "metadata/MisbSt0102.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "base/StationError.h"

namespace station {
namespace {

// Tags of the items.
constexpr std::uint8_t kClassification = 1;
constexpr std::uint8_t kCountryCoding = 2;
constexpr std::uint8_t kCountry = 3;
constexpr std::uint8_t kObjectCoding = 12;
constexpr std::uint8_t kObjectCountries = 13;
constexpr std::uint8_t kVersionOfSet = 22;

constexpr std::uint16_t kSecurityRevision = 12;  // of the standard
// The coding method of ISO 3166 codes; both lists of methods begin with these.
constexpr std::uint8_t kTwoLetters = 1;
constexpr std::uint8_t kThreeLetters = 2;

constexpr const char* kLevels[] = {"unclassified", "restricted", "confidential", "secret",
                                   "top-secret"};

bool isCountry(const std::string& text) {
  return (text.size() == 2 || text.size() == 3) &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

std::uint8_t codingOf(const std::string& country) {
  return country.size() == 2 ? kTwoLetters : kThreeLetters;
}

std::string textOf(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace

Bytes MisbSt0102::parse(const std::string& text) {
  const std::size_t first = text.find(':');
  const std::size_t second = text.find(':', first == std::string::npos ? first : first + 1);
  const auto* const level =
      std::find(std::begin(kLevels), std::end(kLevels), text.substr(0, first));
  if (second == std::string::npos || level == std::end(kLevels) ||
      !isCountry(text.substr(first + 1, second - first - 1)) ||
      !isCountry(text.substr(second + 1))) {
    throw StationError(
        ExitCode::Usage,
        "a security marking is LEVEL:COUNTRY:COUNTRY, like unclassified:CHE:CHE, not " + text);
  }
  const std::string by = text.substr(first + 1, second - first - 1);
  const std::string object = text.substr(second + 1);
  const std::string country = "//" + by;
  Bytes utf16;
  for (const char letter : object) {
    appendNumber(utf16, static_cast<std::uint8_t>(letter), 2);
  }
  Bytes set;
  appendItem(set, kClassification, {static_cast<std::uint8_t>(level - kLevels + 1)});
  appendItem(set, kCountryCoding, {codingOf(by)});
  appendItem(set, kCountry, {country.begin(), country.end()});
  appendItem(set, kObjectCoding, {codingOf(object)});
  appendItem(set, kObjectCountries, utf16);
  appendItem(set, kVersionOfSet, {kSecurityRevision >> 8, kSecurityRevision & 0xFF});
  return set;
}

nlohmann::ordered_json MisbSt0102::decode(const Bytes& set) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  for (KlvReader reader(set); !reader.atEnd();) {
    const std::uint64_t tag = reader.takeTag();
    const Bytes value = reader.take(reader.takeLength());
    const std::uint64_t number = numberOf(value);
    switch (tag) {
      case kClassification:
        json["classification"] =
            number >= 1 && number <= std::size(kLevels) ? kLevels[number - 1] : "unknown";
        break;
      case kCountryCoding:
        json["country_coding"] = number;
        break;
      case kCountry:
        json["country"] = textOf(value);
        break;
      case kObjectCoding:
        json["object_country_coding"] = number;
        break;
      case kObjectCountries: {
        std::string text;  // of UTF-16, whose country codes are ASCII
        std::copy_if(value.begin(), value.end(), std::back_inserter(text),
                     [](std::uint8_t byte) { return byte != 0; });
        json["object_countries"] = text;
        break;
      }
      case kVersionOfSet:
        json["version"] = number;
        break;
      default:
        json["tag_" + std::to_string(tag)] = textOf(value);
    }
  }
  return json;
}

}  // namespace station
