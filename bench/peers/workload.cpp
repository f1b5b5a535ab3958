// SPDX-License-Identifier: Apache-2.0
#include "bench/peers/workload.h"

#include <cstdlib>
#include <map>
#include <random>

#include "apps/demo/edits.h"
#include "apps/vantrel/acl/loader.h"
#include "apps/vantrel/acl/parse.h"
#include "bench/peers/row_client.h"
#include "shoal/local_table.h"

namespace Bench {
namespace {

using namespace Vantrel;

constexpr int rounds = 5;
constexpr std::size_t large = 5000;  // rules; such a set is edited once

class RecordingTable : public Shoal::LocalTable<EntryConfig> {
 public:
  void entryIs(EntryConfig const& e) override {
    writes.push_back({e, false});
    LocalTable::entryIs(e);
  }
  void entryDel(EntryKey const& key) override {
    writes.push_back({EntryConfig(key, OpId(), 0, 0, 0), true});
    LocalTable::entryDel(key);
  }
  std::vector<Write> writes;
};

// A producer and an engine in one process, whose acknowledgements come at once.
class Recorder {
 public:
  explicit Recorder(std::vector<Acl::Rule> rules)
      : size_(static_cast<U32>(rules.size() + rules.size() / 4)),
        rules_(std::move(rules)),
        row_(size_),
        engine_(Ostra::make<FastVantrelImpl>("engine", config_, nullptr, nullptr,
                                             Ostra::make<RowClient>(row_, status_), 1)),
        frontEnd_(vantrelSmFactory(config_, nullptr, nullptr, nullptr, engine_, nullptr, nullptr)),
        producer_(config_, status_, Mapping::fast()),
        acknowledgements_(status_) {
    made_.size = size_;
  }

  Workload recorded() {
    load("load");
    int const times = rules_.size() < large ? rounds : 1;
    for (int round = 0; round < times; ++round) editAll();
    made_.final = row_.contents();
    for (Edit& edit : made_.edits) edit.wanted.resize(matches_.size());
    return std::move(made_);
  }

 private:
  void editAll() {
    std::size_t const n = rules_.size() / 20;
    Demo::insertBlocks(rules_, n, random_);
    load("insert");
    Demo::removeSome(rules_, n, random_);
    load("remove");
    Demo::changeActions(rules_, n, random_);
    load("change actions");
    tradePlaces(n);
    complete("trade places in rings");
    Demo::reverseBlock(rules_, n);
    load("turn a block round");
  }

  void load(char const* name) {
    Acl::Loader loader(producer_, acknowledgements_, size_);
    for (loader.start(rules_); !loader.finished(); loader.advance())
      if (!acknowledgements_.done()) throw std::logic_error("an entry does not arrive");
    complete(name);
  }

  // Rings of two to four entries of equal priority, about `n` entries in all.
  void tradePlaces(std::size_t n) {
    std::map<std::pair<U16, U32>, std::vector<EntryConfig>> classes;
    for (EntryConfig const& e : wanted()) classes[{e.pg(), e.prio()}].push_back(e);
    std::size_t moved = 0;
    for (auto& [group, ring] : classes) {
      if (ring.size() < 2 || moved >= n) continue;
      ring.resize(std::min(ring.size(), 2 + moved % 3));
      for (std::size_t i = 0; i < ring.size(); ++i)
        producer_.move(ring[i].key(), ring[(i + 1) % ring.size()].tableIndex(TableKey(0)));
      moved += ring.size();
    }
  }

  std::vector<EntryConfig> wanted() const {
    std::vector<EntryConfig> all;
    for (auto place = config_->first(); place; place = config_->next(*place))
      all.push_back(config_->entry(place->key));
    return all;
  }

  void complete(char const* name) {
    Edit edit{name, std::exchange(config_->writes, {}), {}};
    for (Write const& write : edit.writes)
      if (!write.removed) nameMatch(write.entry);
    edit.wanted.resize(matches_.size());
    for (EntryConfig const& e : wanted())
      if (!e.isDel()) edit.wanted[made_.matchOf.at(e.key().value())] = true;
    made_.edits.push_back(std::move(edit));
  }

  // A key keeps its match.
  void nameMatch(EntryConfig const& e) {
    if (made_.matchOf.contains(e.key().value())) return;
    Acl::Rule rule = Acl::decode(e.dataWords().elements()).value();
    rule.action = {};
    auto const next = static_cast<Match>(matches_.size());
    made_.matchOf[e.key().value()] = matches_.try_emplace(rule, next).first->second;
  }

  U32 const size_;
  Demo::Rules rules_;
  Row row_;
  std::mt19937 random_{1};
  Ostra::Ptr<RecordingTable> config_ = Ostra::make<RecordingTable>();
  Ostra::Ptr<Shoal::LocalTable<EntryStatus>> status_ = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  Ostra::Ptr<FastVantrelImpl> engine_;
  Ostra::Ptr<VantrelSm> frontEnd_;
  Producer producer_;
  Acknowledgements acknowledgements_;
  boost::unordered_flat_map<Acl::Rule, Match, std::hash<Acl::Rule>> matches_;
  Workload made_;
};

}  // namespace

U64 Workload::writes() const {
  U64 n = 0;
  for (Edit const& edit : edits) n += edit.writes.size();
  return n;
}

void Workload::run(Programmer& programmer, Row& row, bool guarded) const {
  for (Edit const& edit : edits) {
    if (guarded) row.guard(edit.wanted, matchOf);
    for (Write const& write : edit.writes)
      if (write.removed)
        programmer.remove(write.entry.key().value());
      else
        programmer.put(write.entry);
    programmer.finish();
  }
}

Workload workload(std::string const& path) { return Recorder(Acl::parseFile(path)).recorded(); }

std::vector<std::pair<std::string, std::string>> ruleSets() {
  std::string const source = VANTREL_SOURCE_DIR;
  std::vector<std::pair<std::string, std::string>> all{
      {"edge_filter", source + "/examples/edge_filter.rules"}};
  for (char const* name : {"fw1_1k", "fw1_10k"})
    all.emplace_back(name, source + "/../shared/data/acl/" + name + ".rules");
  return all;
}

}  // namespace Bench
