// The statistics of the simulated gateway. Every value depends only on seed, statistic and time, so
// that a run can be repeated. Time is given in whole seconds since the gateway's start.
#ifndef ZEBSIM_GATEWAY_MODEL_H
#define ZEBSIM_GATEWAY_MODEL_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "gateway_encoder.h"

namespace zebsim {

// The return codes of query elements that have no answer.
constexpr std::int32_t kUnknownElement = -11;
constexpr std::int32_t kEmptyElement = -12;

constexpr unsigned kMaxScale = 1000;

struct ModelOptions {
  std::uint64_t seed = 1;  // gateways with the same seed have the same values
  // The number of copies of each statistic, 1 to kMaxScale: XX_NAME, XX_NAME_2, XX_NAME_3...
  unsigned scale = 1;
  bool hasOddNames = false;  // adds statistics whose ids and values are hard to show
};

struct Definition;  // one row of the table of statistics

class GatewayModel {
 public:
  explicit GatewayModel(const ModelOptions& options);

  // A query consists of group ids or (stats only) statistic ids, separated by ':'; each gets a
  // response of its own. The empty query asks for everything in one response. Throws BadRequest for
  // an oversized answer.
  [[nodiscard]] Answer stats(std::string_view query, std::uint64_t seconds) const;
  [[nodiscard]] Answer statIds(std::string_view query) const;
  [[nodiscard]] Answer groups() const;

 private:
  struct Item {
    std::string id;
    const Definition* definition;
    std::uint64_t noise;  // the seed of this statistic
  };
  struct Group {
    std::vector<Item> items;
    std::map<std::string, std::size_t, std::less<>> byId;
  };

  void addItem(std::string id, const Definition& definition);
  [[nodiscard]] std::vector<const Item*> findItems(std::string_view element,
                                                   bool allowStatIds) const;
  template <typename Items, typename MakeItem>
  Answer answer(std::string_view query, bool allowStatIds, MakeItem makeItem) const;

  std::uint64_t seed_;
  std::vector<std::string> groupIds_;  // in the order of the answer
  std::map<std::string, Group, std::less<>> groups_;
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_MODEL_H
