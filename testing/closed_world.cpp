// SPDX-License-Identifier: Apache-2.0
#include "testing/closed_world.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstring>
#include <random>

namespace Testing {
namespace {

using Vantrel::EntryConfig;

constexpr U32 untried = 0xFFFFFFFF;
constexpr U32 ends = 0xFFFFFFFE;     // the process
constexpr U32 longestWalk = 60'000;  // versions stay less than 65536 apart
constexpr U16 tooFar = 100;          // no state with operations left is in reach
constexpr U32 sampleOf = 16;

struct Hash {
  U64 low = 0;
  U64 high = 0;
  friend bool operator==(Hash const&, Hash const&) = default;
};
struct HashOfHash {
  using is_avalanching = void;
  std::size_t operator()(Hash const& h) const { return h.low; }
};

U64 mixed(U64 x) {
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
  return x ^ (x >> 31);
}

// 128 bits: among 10^9 states two share one by chance with a probability of 10^-21.
Hash hashOf(std::string_view bytes) {
  Hash h{0x9E3779B97F4A7C15U ^ bytes.size(), 0xC2B2AE3D27D4EB4FU};
  for (std::size_t i = 0; i < bytes.size(); i += 8) {
    U64 word = 0;
    std::memcpy(&word, bytes.data() + i, std::min<std::size_t>(8, bytes.size() - i));
    h.low = mixed(h.low ^ word);
    h.high = mixed((h.high + 0x165667B19E3779F9U) ^ (word * 0xFF51AFD7ED558CCDU)) ^ h.low;
  }
  return {mixed(h.low ^ h.high), mixed(h.high)};
}

class Closer {
 public:
  Closer(SmallWorld const& world, Closing const& how, Scenario& scenario)
      : world_(world),
        how_(how),
        scenario_(scenario),
        form_(world, how.rename && mayRename(world), how.form),
        renamed_(world, mayRename(world), how.form),
        operations_(static_cast<U32>(world.alphabet.size())) {
    for (Operation const& o : world.alphabet) handlesNamed_ = handlesNamed_ || o.handle > 0;
  }

  Closed run() {
    try {
      beginWalk();
      while (left() > 0 && found_.transitions < how_.mostTransitions && exploreOne()) tellProgress();
      found_.closed = left() == 0;
      if (found_.closed) repeatSome();
    } catch (Difference const& error) {
      scenario_ = scenarioOfWalk();
      tryShortest();
      throw Difference(error.what());
    }
    found_.states = states_.size();
    found_.upToNames = upToNames_.empty() ? found_.states : upToNames_.size();
    measureDepth();
    return found_;
  }

 private:
  using Id = U32;

  // What is known of one state.
  struct State {
    U32 tried = 0;  // operations
    // Of the search for a state that has some left:
    U16 far = 0;    // at least as many steps
    U32 onWay = 0;  // the last way that led through it,
    U32 place = 0;  // as which step
  };

  void tellProgress() {
    found_.states = states_.size();
    if (how_.progress && found_.transitions / 1'000'000 != told_) how_.progress(found_, left());
    told_ = found_.transitions / 1'000'000;
  }

  U64 left() const { return states_.size() * operations_ - found_.transitions; }
  Id& successor(Id state, U32 operation) { return successors_[U64{state} * operations_ + operation]; }

  void beginWalk() {
    ++found_.walks;
    if (!differ_ || walk_.size() + 64 > longestWalk || !mayEmpty()) {
      differ_.emplace(world_.engine);
      walk_.clear();
    } else {
      differ_->empty();
    }
    walkBegan_ = walk_.size();
    for (Step const& step : world_.beginning) runStep(step);
    at_ = look();
  }
  // Whether nothing stays of a walk once the world is empty: the order of the table's slots may, and that a
  // wake-up was lost.
  bool mayEmpty() const { return !form_.walks() && differ_->model().lostInDrain() == 0; }

  // Runs one operation for the first time, and goes there if need be. False when none is left.
  bool exploreOne() {
    if (walk_.size() + 64 > longestWalk) beginWalk();
    if (states_[at_].tried < operations_) {
      runOperation(states_[at_].tried);
      return true;
    }
    if (auto const way = wayToUnfinished()) {
      for (U32 operation : *way)
        if (Id const expected = successor(at_, operation); !runOperation(operation) || at_ != expected) break;
      return true;
    }
    if (atBeginning_) return false;
    beginWalk();
    atBeginning_ = true;
    return true;
  }

  // The way to a state with operations left, found without running anything: learning real-time A* (R. Korf,
  // Real-Time Heuristic Search, 1990). `far` is never more than the number of steps that are needed, for
  // states only ever lose their last operation. Going to the successor that seems nearest, and correcting
  // `far` on the way, leads to the goal. Null when there is none in reach.
  std::optional<std::vector<U32>> wayToUnfinished() {
    ++search_;
    way_.clear();
    for (Id id = at_; states_[id].tried == operations_;) {
      auto const [operation, next] = nearestSuccessor(id);
      State& state = states_[id];
      U16 const far = next == ends ? tooFar : static_cast<U16>(states_[next].far + 1);
      state.far = std::max(state.far, far);
      if (state.far >= tooFar) {  // a dead end: begin again, unless it is where the walk is
        if (id == at_) return std::nullopt;
        ++search_;
        way_.clear();
        id = at_;
        continue;
      }
      state.onWay = search_;
      state.place = static_cast<U32>(way_.size());
      way_.push_back(operation);
      if (states_[next].onWay == search_ && states_[next].place < way_.size()) cutLoop(next);
      id = next;
    }
    return way_;
  }
  // The way came to this state before.
  void cutLoop(Id id) {
    ++search_;
    way_.resize(states_[id].place);
    Id on = at_;
    for (U32 i = 0; i < way_.size(); ++i) {
      states_[on].onWay = search_;
      states_[on].place = i;
      on = successor(on, way_[i]);
    }
  }
  std::pair<U32, Id> nearestSuccessor(Id id) {
    std::pair<U32, Id> best{0, ends};
    U32 least = tooFar;
    for (U32 operation = 0; operation < operations_; ++operation) {
      Id const next = successor(id, operation);
      if (next >= ends || states_[next].far >= least) continue;
      least = states_[next].far;
      best = {operation, next};
    }
    return best;
  }

  // The shortest way from the beginning.
  std::vector<U32> shortestWay(Id goal) {
    std::vector<std::pair<Id, U32>> cameBy(states_.size(), {untried, 0});
    std::vector<Id> queue{0};
    for (std::size_t i = 0; i < queue.size() && cameBy[goal].first == untried; ++i)
      for (U32 operation = 0; operation < operations_; ++operation) {
        Id const next = successor(queue[i], operation);
        if (next >= ends || next == 0 || cameBy[next].first != untried) continue;
        cameBy[next] = {queue[i], operation};
        queue.push_back(next);
      }
    std::vector<U32> way;
    for (Id id = goal; id != 0; id = cameBy[id].first) way.push_back(cameBy[id].second);
    std::reverse(way.begin(), way.end());
    return way;
  }

  // Returns false when the operation would end the process: then it is not run.
  bool runOperation(U32 operation) {
    atBeginning_ = false;
    Id const from = at_;
    running_ = operation;
    runningIn_ = from;
    bool const first = successor(from, operation) == untried;
    if (first) ++found_.transitions, ++states_[from].tried;
    Step const step = stepOf(concrete(operation));
    if (successor(from, operation) == ends || (world_.mayEndProcess && !differ_->endsProcess(step).empty())) {
      walk_.pop_back();
      if (!first && successor(from, operation) != ends)
        throw Difference("an operation ends the process that did not end it in the same state");
      found_.ending += first;
      successor(from, operation) = ends;
      return false;
    }
    U64 const choices = differ_->model().choices();
    Naming const before = form_.naming();
    runStep(step, first);
    at_ = look();
    bool const chose = differ_->model().choices() != choices;
    compareWithFirst(from, operation, chose, before);
    return true;
  }

  void compareWithFirst(Id from, U32 operation, bool chose, Naming const& before) {
    Id& successorNow = successor(from, operation);
    bool const first = successorNow == untried;
    if (first) successorNow = at_;
    found_.repeated += !first;
    found_.choices += first && chose;
    if (successorNow != at_) {
      if (!chose)
        throw Difference("two states with the same canonical form go different ways by operation " +
                         std::to_string(operation));
      ++found_.otherWays;
      others_.emplace_back(from, at_);
      return;
    }
    U64 const transition = U64{from} * operations_ + operation;
    if (chose || mixed(transition) % sampleOf != 0) return;
    U64 const calls = callsMade(before);
    auto const [known, fresh] = calls_.emplace(transition, calls);
    if (known->second != calls)
      throw Difference("two states with the same canonical form make different calls by operation " +
                       std::to_string(operation));
    found_.sampled += !fresh;
  }

  // The calls of the last step in the words of the state before it.
  U64 callsMade(Naming const& before) const {
    std::string text;
    auto const add = [&](U64 value) { text.append(reinterpret_cast<char const*>(&value), sizeof value); };
    for (Event const& event : differ_->events()) {
      EntryConfig const& e = event.entry;
      add(static_cast<U64>(event.kind));
      add(e.key().value() ? placeOf(before.keys, e.key().value() - 1) : Naming::most);
      add(e.opId().low());
      add(e.prio());
      add(e.isDel());
      add(e.tableIndexs() ? e.tableIndex(Vantrel::TableKey(0)) : Vantrel::noIndex);
    }
    return hashOf(text).low;
  }
  static U64 placeOf(Naming::Names const& names, U64 name) {
    return static_cast<U64>(std::find(names.begin(), names.end(), name) - names.begin());
  }

  void runStep(Step const& step, bool first = false) {
    if (how_.meddle) how_.meddle(*differ_);
    differ_->run(step);
    if (first)
      for (Event const& event : differ_->events()) found_.rings += event.kind == EventKind::DeleteDeadlock;
    if (auto const idle = differ_->idleClaim(); idle && differ_->model().lostInDrain() == 0)
      throw Difference("key " + std::to_string(*idle) + " waits for a position that is free and in order");
  }

  // The operation of the alphabet that stands for this one under the names that are in use now.
  U32 concrete(U32 operation) {
    Operation const& o = world_.alphabet[operation];
    if (!form_.renames() || o.step.key() == 0) return operation;
    Naming const& naming = form_.naming();
    bool const names = o.step.what == Do::Put && !o.step.entry.isDel();
    U32 const key = naming.keys[o.key];
    U32 const group = names && groups() > 1 ? naming.groups[o.group] : o.group;
    U32 const handle = names && handlesNamed_ ? naming.handles[o.handle] : o.handle;
    for (U32 i = 0; i < operations_; ++i) {
      Operation const& other = world_.alphabet[i];
      if (other.key == key && other.group == group && other.handle == handle && sameBut(o, other)) return i;
    }
    throw Difference("the world has no operation for these names");
  }
  static bool sameBut(Operation const& a, Operation const& b) {
    Step const& s = a.step;
    Step const& t = b.step;
    return s.what == t.what && s.quiet == t.quiet && s.entry.isDel() == t.entry.isDel() &&
           s.entry.prio() == t.entry.prio() && s.entry.opId() == t.entry.opId() &&
           s.entry.tableIndexes() == t.entry.tableIndexes();
  }
  U32 groups() const {
    U32 count = 0;
    for (Operation const& o : world_.alphabet) count = std::max(count, o.group + 1);
    return count;
  }

  Step stepOf(U32 operation) {
    walk_.push_back(static_cast<U16>(operation));
    return world_.step(world_.alphabet[operation], walk_.size());
  }

  Id look() {
    try {
      form_.read(*differ_);
    } catch (Broken const& error) {
      throw Difference(error.what());
    }
    auto const [at, fresh] = ids_.emplace(hashOf(form_.bytes()), static_cast<Id>(states_.size()));
    if (fresh) {
      if (!form_.renames() && renamed_.renames()) {
        renamed_.read(*differ_);
        upToNames_.insert(hashOf(renamed_.bytes()));
      }
      states_.emplace_back();
      successors_.resize(successors_.size() + operations_, untried);
    }
    return at->second;
  }

  void repeatSome() {
    std::mt19937_64 random(states_.size());
    U64 const more = static_cast<U64>(how_.repeat * static_cast<double>(found_.transitions));
    U64 const goal = found_.repeated + more;
    while (found_.repeated < goal) {
      if (walk_.size() + 64 > longestWalk) beginWalk();
      runOperation(static_cast<U32>(random() % operations_));
    }
  }

  Scenario scenarioOfWalk() const {
    Scenario scenario{world_.engine, world_.beginning};
    for (std::size_t i = walkBegan_; i < walk_.size(); ++i)
      scenario.steps.push_back(world_.step(world_.alphabet[walk_[i]], i + 1));
    return scenario;
  }

  // The step that failed, after the shortest way to its state, if it fails there too.
  void tryShortest() {
    U32 const operation = running_;
    Id const goal = runningIn_;
    try {
      std::vector<U32> way = shortestWay(goal);
      way.push_back(operation);
      differ_.reset();
      beginWalk();
      for (U32 step : way) runOperation(step);
    } catch (Difference const&) {
      scenario_ = scenarioOfWalk();
    }
  }

  void measureDepth() {
    std::vector<U32> depth(states_.size(), untried);
    std::vector<Id> level{0};
    std::sort(others_.begin(), others_.end());
    for (depth[0] = 0; !level.empty(); ++found_.depth) {
      found_.deep.push_back(level.size());
      std::vector<Id> next;
      auto const reach = [&](Id id) {
        if (id >= ends || depth[id] != untried) return;
        depth[id] = found_.depth + 1;
        next.push_back(id);
      };
      for (Id id : level) {
        for (U32 operation = 0; operation < operations_; ++operation) reach(successor(id, operation));
        auto other = std::lower_bound(others_.begin(), others_.end(), std::pair<Id, Id>{id, 0});
        for (; other != others_.end() && other->first == id; ++other) reach(other->second);
      }
      level = std::move(next);
    }
    found_.depth = static_cast<U32>(found_.deep.size()) - 1;
  }

  SmallWorld const& world_;
  Closing const& how_;
  Scenario& scenario_;
  CanonicalForm form_;
  CanonicalForm renamed_;
  U32 const operations_;
  bool handlesNamed_ = false;
  std::optional<Differ> differ_;
  std::vector<U16> walk_;      // the operations since the world was made,
  std::size_t walkBegan_ = 0;  // and the first one since it was empty
  bool atBeginning_ = false;
  U32 running_ = 0;   // the last operation,
  Id runningIn_ = 0;  // and the state that it was run in
  U64 told_ = 0;
  Id at_ = 0;
  boost::unordered_flat_map<Hash, Id, HashOfHash> ids_;
  boost::unordered_flat_set<Hash, HashOfHash> upToNames_;
  std::vector<State> states_;
  std::vector<Id> successors_;
  std::vector<std::pair<Id, Id>> others_;  // successors that a choice led to, beside the first one
  boost::unordered_flat_map<U64, U64> calls_;
  U32 search_ = 0;
  std::vector<U32> way_;
  Closed found_;
};

}  // namespace

Closed close(SmallWorld const& world, Closing const& how, Scenario& scenario) {
  return Closer(world, how, scenario).run();
}

}  // namespace Testing
