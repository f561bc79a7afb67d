// Types, units and meanings of statistics: the gateway does not send them, so a file has them.
#ifndef ZEBTOOL_METADATA_H
#define ZEBTOOL_METADATA_H

#include <string>
#include <string_view>
#include <vector>

namespace zebtool {

enum class StatType { kUntyped, kCounter, kGauge };

// A unit that a file may name. Monitoring systems want base units: a value times the factor is in
// the base unit.
struct Unit {
  std::string_view name;
  std::string_view base;
  long double factor;
};

struct StatInfo {
  std::string glob;  // of the ids for which the rest holds
  StatType type = StatType::kUntyped;
  const Unit* unit = nullptr;  // null if it has none
  std::string help;            // empty if there is none
};

class Metadata {
 public:
  Metadata() = default;
  // Reads a JSON file such as
  //   {"statistics": [{"id": "*_BYTES_*", "type": "counter", "unit": "bytes", "help": "..."}]}
  // in which only "id" is required. Throws a Fault (kUsage) that names the file and the place if it
  // cannot be read, or if it has a key, type or unit that is not known, or a key twice.
  explicit Metadata(const std::string& path);

  // Returns the first entry that matches the id, or null.
  [[nodiscard]] const StatInfo* find(const std::string& id) const;

 private:
  std::vector<StatInfo> infos_;
};

}  // namespace zebtool

#endif  // ZEBTOOL_METADATA_H
