#include "report.h"

#include <chrono>
#include <cstdio>
#include <string_view>

#include "text.h"

namespace zebtool {

namespace {

// The version of the JSON layout. Increment it on an incompatible change.
constexpr int kDocumentVersion = 1;

// Writes a number with the gateway's own digits: a double would change them.
std::string writeValue(std::string_view value) {
  return parseNumber(value) ? std::string(value) : quoteJson(value);
}

// Builds a JSON document member by member; a pretty one has one entry per line.
class Document {
 public:
  explicit Document(bool isPretty) : isPretty_(isPretty) {}
  void addMember(const char* name, const std::string& value) {
    text_ += (text_.empty() ? "{" : ",") + std::string(isPretty_ ? "\n  " : "") + quoteJson(name) +
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
  std::string finish() { return text_ + (isPretty_ ? "\n}" : "}"); }

 private:
  bool isPretty_;
  std::string text_;
};

std::string renderDocument(const Report& report, bool isPretty) {
  Document document(isPretty);
  document.addMember("version", std::to_string(kDocumentVersion));
  document.addMember("timestamp", quoteJson(report.timestamp));
  document.addMember("gateway", quoteJson(report.gateway));
  auto writeEntry = [&](const Entry& entry) {
    if (report.command == Command::kGroups) return quoteJson(entry.id);
    std::string text = R"({"id":)" + quoteJson(entry.id) + R"(,"group":)" +
                       quoteJson(groupOf(entry, report.isByGroup));
    if (report.command == Command::kStats) text += R"(,"value":)" + writeValue(entry.value);
    return text + "}";
  };
  const char* name = report.command == Command::kStats ? "statistics"
                     : report.command == Command::kIds ? "ids"
                                                       : "groups";
  document.addArray(name, report.answer.entries, writeEntry);
  document.addArray("errors", report.answer.refusals, [](const Refusal& refusal) {
    return R"({"element":)" + quoteJson(refusal.element) + R"(,"code":)" +
           std::to_string(refusal.code) + "}";
  });
  if (report.outage) {
    document.addMember("outage", R"({"code":)" + std::to_string(report.outage->libraryCode) +
                                     R"(,"text":)" + quoteJson(report.outage->what()) + "}");
  }
  return document.finish();
}

const char* csvHeading(Command command) {
  if (command == Command::kGroups) return "timestamp,group,gateway\r\n";
  return command == Command::kIds ? "timestamp,group,id,gateway\r\n"
                                  : "timestamp,group,id,value,gateway\r\n";
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

std::string renderJson(const Reports& reports, bool isArray) {
  std::string text;
  for (const Report& report : reports)
    text += (text.empty() ? "" : ",\n") + renderDocument(report, true);
  return isArray ? "[\n" + text + "\n]\n" : text + "\n";
}

std::string renderJsonLines(const Reports& reports) {
  std::string text;
  for (const Report& report : reports) text += renderDocument(report, false) + "\n";
  return text;
}

// Lines end with CR LF, as RFC 4180 wants.
std::string renderCsv(const Reports& reports, bool withHeading) {
  std::string text = withHeading ? csvHeading(reports.front().command) : "";
  for (const Report& report : reports) {
    for (const Entry& entry : report.answer.entries) {
      text += report.timestamp;
      if (report.command != Command::kGroups)
        text += "," + toCsvCell(groupOf(entry, report.isByGroup));
      text += "," + toCsvCell(entry.id);
      if (report.command == Command::kStats) text += "," + toCsvCell(entry.value);
      text += "," + toCsvCell(report.gateway) + "\r\n";
    }
  }
  return text;
}

std::string renderValues(const Reports& reports) {
  std::string text;
  for (const Report& report : reports) {
    for (const Entry& entry : report.answer.entries)
      text += toShown(report.command == Command::kStats ? entry.value : entry.id) + "\n";
  }
  return text;
}

}  // namespace zebtool
