// SPDX-License-Identifier: Apache-2.0
#include "bench/peers/programmer.h"
#include "bench/peers/row_client.h"
#include "shoal/local_table.h"

namespace Bench {
namespace {

using namespace Vantrel;

class VantrelProgrammer : public Programmer {
 public:
  explicit VantrelProgrammer(Row& row)
      : config_(Ostra::make<Shoal::LocalTable<EntryConfig>>()),
        engine_(Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr,
                                             Ostra::make<RowClient>(row, nullptr), 1)),
        frontEnd_(vantrelSmFactory(config_, nullptr, nullptr, nullptr, engine_, nullptr, nullptr)) {}

  void put(EntryConfig const& wanted) override { config_->entryIs(wanted); }
  void remove(U64 key) override { config_->entryDel(EntryKey(key)); }

 private:
  Ostra::Ptr<Shoal::LocalTable<EntryConfig>> config_;
  Ostra::Ptr<FastVantrelImpl> engine_;
  Ostra::Ptr<VantrelSm> frontEnd_;
};

}  // namespace

std::unique_ptr<Programmer> vantrelProgrammer(Row& row) { return std::make_unique<VantrelProgrammer>(row); }

}  // namespace Bench
