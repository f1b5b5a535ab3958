// SPDX-License-Identifier: Apache-2.0
// Hardware that answers later. A device, played by a thread, takes requests on a line and answers on the same
// line: each entry in its turn, one later than others, one never well, one that it must be asked for twice.
//
//   engine --> Hw::Executor --> LineDriver ==== requests ===> device
//                     ^              ^     <=== answers ====
//                     +-- completed -+
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "hw/executor.h"
#include "keel/timerfd_wheel.h"
#include "ostra/piecewise_map.h"
#include "shoal/local_table.h"
#include "vantrel/vantrel.h"

using namespace Vantrel;
using Kind = Hw::Outcome::Kind;

struct Request {
  U64 token;
  U64 key;
  U64 action;  // of a write
  U32 position;
  bool isWrite;
};
struct Answer {
  U64 token;
  Kind kind;
};

constexpr U64 slowKey = 3;       // the device answers two others first
constexpr U64 wrongAction = 99;  // it has none of this number
constexpr U64 busyKey = 1;       // its first erase meets a busy bus

// The device knows nothing of the agent but its end of the line, and ends with the line.
static void device(int line) {
  std::optional<Answer> slow;
  int slowFor = 0;
  bool isBusy = true;
  auto const answer = [&](Answer const& a) { return send(line, &a, sizeof a, MSG_NOSIGNAL) == sizeof a; };
  for (Request r; read(line, &r, sizeof r) == sizeof r;) {
    Answer a{r.token, Kind::Done};
    if (r.isWrite && r.action == wrongAction) a.kind = Kind::Refused;
    if (!r.isWrite && r.key == busyKey && std::exchange(isBusy, false)) a.kind = Kind::Again;
    if (r.isWrite && r.key == slowKey) {
      slow = a;
      slowFor = 2;
    } else if (!answer(a)) {
      break;
    } else if (slow && --slowFor == 0) {
      answer(*std::exchange(slow, std::nullopt));
    }
  }
  close(line);
}

class LineDriver : public Hw::Driver {
 public:
  LineDriver() {
    std::array<int, 2> ends;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
    line_ = ends[0];
    device_ = std::thread(device, ends[1]);
  }
  ~LineDriver() override {
    shutdown(line_, SHUT_RDWR);
    device_.join();
    close(line_);
  }

  std::size_t mostAtOnce() const override { return 4; }
  // The position is the argument: an entry that is written before its move names the next one.
  Hw::Outcome write(EntryConfig const& e, U32 position, U64 token) override {
    return ask({token, e.key().value(), e.data(DataKey(0)), position, true});
  }
  Hw::Outcome erase(EntryKey const& key, U32 position, U64 token) override {
    return ask({token, key.value(), 0, position, false});
  }
  void flush() override { std::cout << "  flush\n"; }

  int fd() const { return line_; }
  // Takes one answer.
  void dispatch() {
    Answer a;
    if (read(line_, &a, sizeof a) != sizeof a) return;
    auto const asked = asked_.extract(a.token);
    say(toText(a.kind), asked.mapped());
    completed(a.token, {a.kind, a.kind == Kind::Again ? "the bus is busy" : "no such action"});
  }

 private:
  Hw::Outcome ask(Request const& r) {
    say("ask for", r);
    if (send(line_, &r, sizeof r, MSG_DONTWAIT | MSG_NOSIGNAL) != sizeof r)
      return {Kind::Again, "the line is full"};
    asked_.emplace(r.token, r);
    return {Kind::Later, ""};
  }
  static char const* toText(Kind kind) {
    return kind == Kind::Done ? "done:" : kind == Kind::Again ? "busy:" : "refused:";
  }
  static void say(char const* what, Request const& r) {
    std::cout << "  " << what << (r.isWrite ? " write key " : " erase key ") << r.key << " at " << r.position
              << '\n';
  }

  int line_;
  std::thread device_;
  std::map<U64, Request> asked_;
};

// The event loop, and what the engine calls between two keys.
class Loop final : public VantrelImpl::Yield {
 public:
  Loop(LineDriver& driver, Hw::Executor const& executor, Keel::TimerfdWheel& wheel)
      : driver_(driver), executor_(executor), wheel_(wheel) {}

  // While much is queued, the engine waits.
  void betweenKeys() override {
    while (executor_.behind() > mostBehind) turn();
  }
  void untilDone() {
    while (executor_.behind() != 0) turn();
  }

 private:
  static constexpr U64 mostBehind = 4;

  void turn() {
    std::array<pollfd, 2> ready{{{driver_.fd(), POLLIN, 0}, {wheel_.fd(), POLLIN, 0}}};
    poll(ready.data(), ready.size(), -1);
    if (ready[0].revents != 0) driver_.dispatch();
    if (ready[1].revents != 0) wheel_.dispatch();
  }

  LineDriver& driver_;
  Hw::Executor const& executor_;
  Keel::TimerfdWheel& wheel_;
};

int main() {
  auto const config = Ostra::make<Shoal::LocalTable<EntryConfig>>();
  auto const status = Ostra::make<Shoal::LocalTable<EntryStatus>>();
  auto const wheel = Ostra::make<Keel::TimerfdWheel>();  // the executor's own
  LineDriver driver;
  auto const executor = Ostra::make<Hw::Executor>("executor", status, driver, wheel);
  Loop loop(driver, *executor, *wheel);
  auto engine = Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, executor, 1);
  engine->yieldIs(&loop);

  U64 version = 0;
  auto const want = [&](U64 key, U32 prio, U32 position, U64 action) {
    EntryConfig e(EntryKey(key), OpId(++version << 16 | action), static_cast<U32>(key), 0, prio);
    e.tableIndexIs(TableKey(0), position);
    e.dataIs(DataKey(0), action);
    config->entryIs(e);
  };
  auto const acknowledged = [&](U64 key) { return status->entry(EntryKey(key)).opId().high(); };

  std::cout << "a table of six entries\n";
  for (U32 key = 1; key <= 6; ++key) want(key, 10 * key, 100 * key, key == 6 ? wrongAction : key);
  auto frontEnd = vantrelSmFactory({.tableConfig = config, .tableStatus = status, .vantrelImpl = engine});
  std::cout << "the first walk is over, and the hardware is " << executor->behind() << " calls behind\n";
  loop.untilDone();
  for (auto const& [key, reason] : executor->failed())
    std::cout << "key " << key << " is left out (" << reason << "); acknowledged: " << acknowledged(6)
              << '\n';

  std::cout << "key 6 with another action\n";
  want(6, 60, 600, 7);
  loop.untilDone();
  std::cout << "acknowledged: version " << acknowledged(6) << "; left out: " << executor->failed().size()
            << '\n';

  std::cout << "key 2 goes from 200 to 250, key 7 is to take its place\n";
  want(2, 20, 250, 2);
  want(7, 20, 200, 7);
  loop.untilDone();

  std::cout << "key 1 is removed\n";
  config->entryDel(EntryKey(1));
  loop.untilDone();
  std::cout << "calls made again: " << executor->retries() << " (" << executor->problem() << ")\n";

  std::cout << "the agent goes, the hardware keeps its entries\n";
  frontEnd = nullptr;
  executor->detach();
  engine = nullptr;
  std::cout << status->size() << " are acknowledged\n";
}
