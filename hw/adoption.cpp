// SPDX-License-Identifier: Apache-2.0
// Three passes over the contents: which positions are held, then the entries that the table wants, then the
// others. A handle that two entries have is so left to the wanted one.
#include "hw/adoption.h"

#include <optional>

#include "ostra/piecewise_map.h"

namespace Hw {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;

namespace {

constexpr TableKey position(0);

using Fits = std::function<bool(EntryConfig const&)>;

class Adoption {
 public:
  Adoption(Vantrel::VantrelImpl& engine, Executor& executor, Driver& driver,
           Vantrel::TableConfig const& wanted, Fits const& fits)
      : engine_(engine), executor_(executor), driver_(driver), wanted_(wanted), fits_(fits) {}

  Adopted run() {
    inheritAll();
    for (bool const isWanted : {true, false})
      driver_.contents([this, isWanted](U32 ti, EntryConfig const* entry) {
        if (entry && isChosen(*entry, ti)) show(*entry, ti, isWanted);
      });
    result_.erased = executor_.eraseInherited();
    return std::move(result_);
  }

 private:
  struct Choice {
    U32 ti;
    OpId opId;
    bool isAtHome;  // the entry names this position itself
    bool operator<(Choice const& other) const {
      return opId != other.opId ? opId < other.opId : isAtHome < other.isAtHome;
    }
  };

  // What is to be erased must be known, when it is cut short too.
  void inheritAll() try {
    driver_.contents([this](U32 ti, EntryConfig const* entry) { inherit(ti, entry); });
  } catch (...) {
    driver_.contents([this](U32 ti, EntryConfig const* entry) { executor_.inherit(ti, entry); });
    throw;
  }
  // Of two positions of a key, the one that was written last is kept.
  void inherit(U32 ti, EntryConfig const* entry) {
    executor_.inherit(ti, entry);
    if (!entry) return;
    Choice const choice{ti, entry->opId(), entry->tableIndexs() == 1 && entry->tableIndex(position) == ti};
    auto const [at, isFirst] = chosen_.try_emplace(entry->key(), choice);
    if (!isFirst && at->second < choice) at->second = choice;
    engine_.yield();
  }
  bool isChosen(EntryConfig const& entry, U32 ti) const {
    auto const at = chosen_.find(entry.key());
    return at != chosen_.end() && at->second.ti == ti;
  }

  void show(EntryConfig const& held, U32 ti, bool isWanted) {
    EntryConfig const wanted = Vantrel::readEntry(wanted_, held.key());
    if (wanted.empty() == isWanted) return;
    if (auto const shown = asShown(held, ti, wanted)) take(*shown, isWanted);
    engine_.yield();
  }

  // Nothing when it cannot become the wanted entry by updates and moves.
  static std::optional<EntryConfig> asShown(EntryConfig const& held, U32 ti, EntryConfig const& wanted) {
    bool const isGiven = !wanted.empty() && !wanted.isDel();
    if (isGiven && (wanted.pg() != held.pg() || wanted.prio() != held.prio())) return std::nullopt;
    OpId opId = held.opId();
    if (isGiven && !isRight(held, ti, wanted)) opId = OpId(wanted.opId().value() - 1);
    if (opId == OpId()) return std::nullopt;
    EntryConfig shown(held.key(), opId, isGiven ? wanted.hdl() : held.hdl(), held.pg(), held.prio());
    shown.tableIndexIs(position, ti);
    return shown;
  }
  // The engine does what is needed when it is told the version as it is.
  static bool isRight(EntryConfig const& held, U32 ti, EntryConfig const& wanted) {
    if (held == wanted) return wanted.tableIndexs() == 1 && wanted.tableIndex(position) == ti;
    bool const isSame = held.hdl() == wanted.hdl() && held.dataWords() == wanted.dataWords();
    return held.opId() < wanted.opId() && (isSame || held.opId().low() != wanted.opId().low());
  }

  void take(EntryConfig const& shown, bool isWanted) {
    if ((fits_ && !fits_(shown)) || engine_.handleToKey().contains(shown.hdl())) return;
    engine_.handleToKeyIs(shown.hdl(), shown.key());
    engine_.keyToHandleIs(shown.key(), shown.hdl());
    if (!engine_.processEntry(shown)) return refuse(shown);
    ++result_.entries;
    if (!isWanted) result_.unwanted.push_back(shown.key());
  }
  void refuse(EntryConfig const& shown) {
    engine_.processDelete(shown.key(), false);
    engine_.handleToKeyDel(shown.hdl());
    engine_.keyToHandleDel(shown.key());
  }

  Vantrel::VantrelImpl& engine_;
  Executor& executor_;
  Driver& driver_;
  Vantrel::TableConfig const& wanted_;
  Fits const& fits_;
  Ostra::PiecewiseMap<EntryKey, Choice> chosen_;
  Adopted result_;
};

}  // namespace

Adopted adopt(Vantrel::VantrelImpl& engine, Executor& executor, Driver& driver,
              Vantrel::TableConfig const& wanted, Fits const& fits) {
  return Adoption(engine, executor, driver, wanted, fits).run();
}

}  // namespace Hw
