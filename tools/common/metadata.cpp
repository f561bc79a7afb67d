#include "metadata.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <set>
#include <utility>

#include <nlohmann/json.hpp>

#include "fault.h"
#include "glob.h"
#include "text.h"

namespace zebtool {

namespace {

using Json = nlohmann::json;

constexpr Unit kUnits[] = {
    {"seconds", "seconds", 1},
    {"milliseconds", "seconds", 1e-3L},
    {"microseconds", "seconds", 1e-6L},
    {"nanoseconds", "seconds", 1e-9L},
    {"minutes", "seconds", 60},
    {"hours", "seconds", 3600},
    {"days", "seconds", 86400},
    {"bytes", "bytes", 1},
    {"kilobytes", "bytes", 1e3},
    {"megabytes", "bytes", 1e6},
    {"gigabytes", "bytes", 1e9},
    {"kibibytes", "bytes", 1024},
    {"mebibytes", "bytes", 1048576},
    {"gibibytes", "bytes", 1073741824},
    {"ratio", "ratio", 1},
    {"percent", "ratio", 0.01L},
    {"celsius", "celsius", 1},
    {"volts", "volts", 1},
    {"amperes", "amperes", 1},
    {"joules", "joules", 1},
};

std::string listUnits() {
  std::string list;
  for (const Unit& unit : kUnits) list += (list.empty() ? "" : ", ") + std::string(unit.name);
  return list;
}

// Reads one file. Each function takes the place of its value, such as statistics[3], for messages.
class Reader {
 public:
  explicit Reader(std::string path) : path_(std::move(path)) {}

  std::vector<StatInfo> read() {
    Json document = parse(readFile());
    checkKeys(document, "the document", {"statistics"});
    if (!document.contains("statistics")) fail("the document", "has no \"statistics\"");
    const Json& list = document["statistics"];
    if (!list.is_array()) fail("statistics", "is not an array");
    std::vector<StatInfo> infos;
    for (std::size_t i = 0; i < list.size(); ++i) infos.push_back(readInfo(list[i], nameEntry(i)));
    return infos;
  }

 private:
  static std::string nameEntry(std::size_t i) { return "statistics[" + std::to_string(i) + "]"; }

  [[noreturn]] void fail(const std::string& place, const std::string& what) const {
    throw Fault(kUsage, "--metadata: " + path_ + ": " + place + " " + toShown(what));
  }

  [[nodiscard]] std::string readFile() const {
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path_.c_str(), "rb"), std::fclose);
    std::string text;
    char part[4096];
    std::size_t size = 0;
    while (file && (size = std::fread(part, 1, sizeof part, file.get())) > 0)
      text.append(part, size);
    if (!file || std::ferror(file.get()) != 0)
      throw Fault(kUsage, "--metadata: " + path_ + ": " + std::strerror(errno) +
                              "; name a JSON file that can be read");
    return text;
  }

  // Refuses an object that has a key twice, of which Json::parse would keep only the last.
  [[nodiscard]] Json parseObjects(const std::string& text) const {
    using Event = Json::parse_event_t;
    std::vector<std::set<std::string>> open;  // the keys of each object that has not ended
    std::size_t entries = 0;
    return Json::parse(text, [&](int, Event event, const Json& parsed) {
      if (event == Event::object_start) {
        if (open.size() == 1) ++entries;
        open.emplace_back();
      } else if (event == Event::object_end) {
        open.pop_back();
      } else if (event == Event::key && !open.back().insert(parsed).second) {
        fail(open.size() == 1 ? "the document" : nameEntry(entries - 1),
             "has the key \"" + parsed.get<std::string>() + "\" twice");
      }
      return true;
    });
  }

  [[nodiscard]] Json parse(const std::string& text) const {
    try {
      return parseObjects(text);
    } catch (const Json::parse_error& error) {
      std::size_t end = std::min<std::size_t>(error.byte == 0 ? 0 : error.byte - 1, text.size());
      auto line = 1 + std::count(text.begin(), text.begin() + static_cast<long>(end), '\n');
      fail("line " + std::to_string(line), "is not valid JSON");
    } catch (const Json::out_of_range&) {
      fail("the document", "has a number that is too large");
    }
  }

  void checkKeys(const Json& object, const std::string& place,
                 std::initializer_list<std::string_view> known) const {
    if (!object.is_object()) fail(place, "is not an object");
    for (const auto& [key, ignored] : object.items()) {
      if (std::find(known.begin(), known.end(), key) == known.end())
        fail(place, "has an unknown key \"" + key + "\"");
    }
  }

  std::string readText(const Json& object, const std::string& place, const char* key) const {
    if (!object.contains(key)) return {};
    const Json& value = object[key];
    if (!value.is_string() || value.get<std::string>().empty())
      fail(place + "." + key, "is not a text, or is empty");
    return value.get<std::string>();
  }

  StatInfo readInfo(const Json& object, const std::string& place) const {
    checkKeys(object, place, {"id", "type", "unit", "help"});
    StatInfo info;
    info.glob = readText(object, place, "id");
    if (info.glob.empty()) fail(place, "has no \"id\"");
    std::string type = readText(object, place, "type");
    if (type == "counter") info.type = StatType::kCounter;
    if (type == "gauge") info.type = StatType::kGauge;
    if (!type.empty() && info.type == StatType::kUntyped)
      fail(place + ".type", "is \"" + type + "\", which is not counter or gauge");
    std::string unit = readText(object, place, "unit");
    for (const Unit& known : kUnits) {
      if (known.name == unit) info.unit = &known;
    }
    if (!unit.empty() && info.unit == nullptr)
      fail(place + ".unit", "is \"" + unit + "\", which is not one of " + listUnits());
    info.help = readText(object, place, "help");
    return info;
  }

  std::string path_;
};

}  // namespace

Metadata::Metadata(const std::string& path) : infos_(Reader(path).read()) {}

const StatInfo* Metadata::find(const std::string& id) const {
  for (const StatInfo& info : infos_) {
    if (matchesGlob(info.glob, id)) return &info;
  }
  return nullptr;
}

}  // namespace zebtool
