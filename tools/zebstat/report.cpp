#include "report.h"

#include <chrono>
#include <cstdio>
#include <string_view>

#include <nlohmann/json.hpp>

#include "text.h"

namespace zebtool {

namespace {

// The version of the JSON layout. Increment it on an incompatible change.
constexpr int kDocumentVersion = 1;

std::string quote(std::string_view bytes) {
  return nlohmann::json(toUtf8(bytes)).dump();
}

// Writes a number with the gateway's own digits: a double would change them.
std::string writeValue(std::string_view value) {
  return isJsonNumber(value) ? std::string(value) : quote(value);
}

// Builds a JSON document member by member; a pretty one has one entry per line.
class Document {
 public:
  explicit Document(bool isPretty) : isPretty_(isPretty) {}
  void addMember(const char* name, const std::string& value) {
    text_ += (text_.empty() ? "{" : ",") + std::string(isPretty_ ? "\n  " : "") + quote(name) +
             (isPretty_ ? ": " : ":") + value;
  }
  template <typename Items, typename Write>
  void addArray(const char* name, const Items& items, Write write) {
    std::string array;
    for (const auto& item : items) {
      array += (array.empty() ? "[" : ",") + std::string(isPretty_ ? "\n    " : "") + write(item);
    }
    addMember(name, array.empty() ? "[]" : array + (isPretty_ ? "\n  ]" : "]"));
  }
  std::string finish() { return text_ + (isPretty_ ? "\n}\n" : "}\n"); }

 private:
  bool isPretty_;
  std::string text_;
};

std::string renderDocument(const Report& report, bool isPretty) {
  Document document(isPretty);
  document.addMember("version", std::to_string(kDocumentVersion));
  document.addMember("timestamp", quote(report.timestamp));
  document.addMember("gateway", quote(report.gateway));
  auto writeEntry = [&](const Entry& entry) {
    if (report.command == Command::kGroups) return quote(entry.id);
    std::string text =
        R"({"id":)" + quote(entry.id) + R"(,"group":)" + quote(groupOf(entry, report.isByGroup));
    if (report.command == Command::kStats) text += R"(,"value":)" + writeValue(entry.value);
    return text + "}";
  };
  const char* name = report.command == Command::kStats ? "statistics"
                     : report.command == Command::kIds ? "ids"
                                                       : "groups";
  document.addArray(name, report.answer.entries, writeEntry);
  document.addArray("errors", report.answer.refusals, [](const Refusal& refusal) {
    return R"({"element":)" + quote(refusal.element) + R"(,"code":)" +
           std::to_string(refusal.code) + "}";
  });
  return document.finish();
}

std::string quoteCsv(std::string_view bytes) {
  std::string text = toUtf8(bytes);
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

}  // namespace

// No gmtime: it would read the time zone file, which takes too long for a short run.
std::string makeTimestamp() {
  using namespace std::chrono;
  auto now = floor<milliseconds>(system_clock::now());
  auto day = floor<days>(now);
  year_month_day date(day);
  hh_mm_ss time(now - day);
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
                static_cast<int>(time.subseconds().count()));
  return text;
}

std::string groupOf(const Entry& entry, bool isByGroup) {
  return isByGroup ? entry.element : entry.id.substr(0, entry.id.find('_'));
}

std::string renderJson(const Report& report) {
  return renderDocument(report, true);
}

std::string renderJsonLine(const Report& report) {
  return renderDocument(report, false);
}

// Lines end with CR LF, as RFC 4180 wants.
std::string renderCsv(const Report& report, bool withHeading) {
  std::string text;
  if (withHeading) {
    text = report.command == Command::kStats ? "timestamp,group,id,value\r\n"
           : report.command == Command::kIds ? "timestamp,group,id\r\n"
                                             : "timestamp,group\r\n";
  }
  for (const Entry& entry : report.answer.entries) {
    text += report.timestamp;
    if (report.command != Command::kGroups)
      text += "," + quoteCsv(groupOf(entry, report.isByGroup));
    text += "," + quoteCsv(entry.id);
    if (report.command == Command::kStats) text += "," + quoteCsv(entry.value);
    text += "\r\n";
  }
  return text;
}

}  // namespace zebtool
