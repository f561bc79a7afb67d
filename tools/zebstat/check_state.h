// The file in which `check --rate` keeps the values of its previous run.
#ifndef ZEBSTAT_CHECK_STATE_H
#define ZEBSTAT_CHECK_STATE_H

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "output.h"

namespace zebtool {

struct EarlierValue {
  double seconds = 0;  // when it was read, since the epoch
  std::string value;
};

class CheckStateFile {
 public:
  // Reads the file; one that does not exist or was not written by save() counts as empty. Throws a
  // Fault if no file can be written there.
  explicit CheckStateFile(const std::string& path);

  [[nodiscard]] std::optional<EarlierValue> find(const std::string& gateway,
                                                 const std::string& id) const;
  void set(const std::string& gateway, const std::string& id, EarlierValue value);
  // Replaces the file. Throws a Fault if it cannot be written.
  void save() const;

 private:
  OutputFile file_;
  std::map<std::pair<std::string, std::string>, EarlierValue> values_;
};

}  // namespace zebtool

#endif  // ZEBSTAT_CHECK_STATE_H
