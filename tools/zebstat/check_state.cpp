#include "check_state.h"

#include <fstream>

#include <nlohmann/json.hpp>

#include "fault.h"
#include "text.h"

namespace zebtool {

using Json = nlohmann::json;

CheckStateFile::CheckStateFile(const std::string& path) : file_(path, "--state") {
  std::ifstream file(path);
  std::string text;
  std::getline(file, text, '\0');
  if (text.empty()) return;
  Json document = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!document.is_array())
    throw Fault(kUsage, path + " holds no values of a previous run; give --state another file");
  for (const Json& item : document) {
    bool isGood = item.is_array() && item.size() == 4 && item[0].is_string() &&
                  item[1].is_string() && item[2].is_number() && item[3].is_string();
    if (isGood) values_[{item[0], item[1]}] = {item[2], item[3]};
  }
}

std::optional<EarlierValue> CheckStateFile::find(const std::string& gateway,
                                                 const std::string& id) const {
  auto found = values_.find({gateway, toUtf8(id)});
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

void CheckStateFile::set(const std::string& gateway, const std::string& id, EarlierValue value) {
  values_[{gateway, toUtf8(id)}] = std::move(value);
}

void CheckStateFile::save() const {
  Json document = Json::array();
  for (const auto& [key, value] : values_)
    document.push_back({key.first, key.second, value.seconds, value.value});
  file_.replace(document.dump() + "\n");
}

}  // namespace zebtool
