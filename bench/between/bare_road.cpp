// SPDX-License-Identifier: Apache-2.0
// The floor: a write copies the record's words into a slot that both processes map, an acknowledgement copies
// its version. A process sets a flag before it sleeps, and only then is it woken, by an eventfd that is
// watched edge-triggered, so that nobody has to read it.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>

#include <atomic>
#include <cstring>
#include <system_error>
#include <vector>

#include "bench/between/child.h"
#include "bench/between/road.h"

namespace Bench {
namespace {

constexpr U64 slots = 8192;  // more than are ever under way

// Key, version, group, priority, position, and the data.
struct Record {
  U64 words[5 + Road::dataWords];
};

// What one side sends the other.
template <class T>
struct Lane {
  alignas(64) std::atomic<U64> head;    // sent so far
  alignas(64) std::atomic<U64> tail;    // taken so far
  alignas(64) std::atomic<U32> asleep;  // the taking side
  T slot[slots];
};

struct Shared {
  Lane<Record> writes;
  Lane<U64> acknowledgements;
};

[[noreturn]] void fail(char const* what) { throw std::system_error(errno, std::generic_category(), what); }

class Bell {
 public:
  Bell() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (event_ < 0) fail("eventfd");
  }
  ~Bell() { close(event_); }
  Bell(Bell const&) = delete;
  Bell& operator=(Bell const&) = delete;
  void ring() const {
    U64 const one = 1;
    if (write(event_, &one, sizeof one) != sizeof one) fail("eventfd");
  }
  int fd() const { return event_; }

 private:
  int const event_;
};

// The sleeping side's end of a bell.
class Ear {
 public:
  explicit Ear(Bell const& bell) : poll_(epoll_create1(EPOLL_CLOEXEC)) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    if (poll_ < 0 || epoll_ctl(poll_, EPOLL_CTL_ADD, bell.fd(), &event) != 0) fail("epoll");
  }
  ~Ear() { close(poll_); }
  Ear(Ear const&) = delete;
  Ear& operator=(Ear const&) = delete;
  // False when `milliseconds` passed, -1 for ever.
  bool sleep(int milliseconds) const {
    epoll_event event;
    return epoll_wait(poll_, &event, 1, milliseconds) == 1;
  }

 private:
  int const poll_;
};

template <class T>
void send(Lane<T>& lane, T const& value, Bell const& bell) {
  U64 const head = lane.head.load(std::memory_order_relaxed);
  std::memcpy(&lane.slot[head % slots], &value, sizeof value);
  lane.head.store(head + 1, std::memory_order_seq_cst);
  if (lane.asleep.load(std::memory_order_seq_cst) == 0) return;
  lane.asleep.store(0, std::memory_order_relaxed);
  bell.ring();
}

// Asleep before the last look: what this look misses rings the bell.
template <class T, class Take>
U64 takeAll(Lane<T>& lane, Ear const& ear, int milliseconds, Take const& take) {
  U64 const tail = lane.tail.load(std::memory_order_relaxed);
  while (lane.head.load(std::memory_order_acquire) == tail) {
    lane.asleep.store(1, std::memory_order_seq_cst);
    if (lane.head.load(std::memory_order_seq_cst) == tail && !ear.sleep(milliseconds))
      throw std::runtime_error("the other process is silent");
    lane.asleep.store(0, std::memory_order_relaxed);
  }
  U64 at = tail;
  for (; at != lane.head.load(std::memory_order_acquire); ++at) take(lane.slot[at % slots]);
  lane.tail.store(at, std::memory_order_release);
  return at - tail;
}

class BareRoad : public Road {
 public:
  BareRoad() : shared_(mapped()), ear_(toNear_), child_([this] { acknowledgeForEver(); }) {}
  ~BareRoad() override { munmap(shared_, sizeof *shared_); }

  void write(U64 key, Change) override {
    Record const record{{key, ++version_, 0, key, 2 * key, key, key, key, version_}};
    send(shared_->writes, record, toFar_);
  }
  U64 await() override {
    return takeAll(shared_->acknowledgements, ear_, Road::patience, [this](U64 version) { last_ = version; });
  }

 protected:
  std::vector<pid_t> farEnd() const override { return {child_.pid()}; }

 private:
  static Shared* mapped() {
    void* const at = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (at == MAP_FAILED) fail("mmap");
    return new (at) Shared{};
  }
  [[noreturn]] void acknowledgeForEver() {
    Ear const ear(toFar_);
    while (true)
      takeAll(shared_->writes, ear, -1,
              [this](Record const& r) { send(shared_->acknowledgements, r.words[1], toNear_); });
  }

  Shared* const shared_;
  Bell const toFar_, toNear_;
  Ear const ear_;
  U64 version_ = 0;
  U64 last_ = 0;
  Child const child_;
};

}  // namespace

std::unique_ptr<Road> bareRoad(U64) { return std::make_unique<BareRoad>(); }

}  // namespace Bench
