// SPDX-License-Identifier: Apache-2.0
#include "shoal/mount.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/unordered/unordered_flat_set.hpp>
#include <iterator>
#include <utility>
#include <vector>

#include "pallo/exception.h"
#include "shoal/error.h"

namespace Shoal {

namespace {
// Changes told of in one dispatch, so that a busy writer does not hold the watcher's event loop.
constexpr int slice = 1024;
// How many changes ahead an index line is asked for, and then the record it names: each early enough for the
// memory, and late enough to be still there.
constexpr U64 lineAhead = 8;
constexpr U64 recordAhead = 4;
}  // namespace

// In many small sets, so that one which grows moves few keys.
class Mount::KnownKeys {
 public:
  void insert(U64 key) { setOf(key).insert(key); }
  void erase(U64 key) { setOf(key).erase(key); }
  std::vector<U64> those(auto const& wanted) const {
    std::vector<U64> found;
    for (Set const& set : sets_) std::ranges::copy_if(set, std::back_inserter(found), wanted);
    return found;
  }

 private:
  using Set = boost::unordered_flat_set<U64>;
  Set& setOf(U64 key) { return sets_[Format::mix(key) >> 56]; }
  std::array<Set, 256> sets_;
};

Mount::Mount(std::string path, Shape const& shape, Sink& sink)
    : path_(std::move(path)), shape_(shape), sink_(sink), known_(std::make_unique<KnownKeys>()) {
  openFile();
}

Mount::~Mount() = default;

void Mount::openFile() {
  auto mapping = std::make_shared<Mapping>(path_, Mapping::Access::read);
  auto view = std::make_unique<TableView>(mapping, shape_);
  U64 const head = view->head();
  view->damageSinkIs([this](std::string_view what) { sink_.damaged(what); });
  view_ = std::move(view);
  mapping_ = std::move(mapping);
  position_ = head;
}

// Between its mounting and the beginning of the watch the file may have been replaced, and its writer may
// have died.
int Mount::fd() {
  if (!watch_) {
    watch_ = std::make_unique<Watch>(path_);
    followOwed_ = true;
    writerWent_ = true;
  }
  return watch_->fd();
}

// What is found is known. What is found absent stays known: whoever looked may not be the one who believes in
// it, and is told of its removal.
void Mount::lookedUp(U64 key, bool present) {
  if (present) known_->insert(key);
  for (Telling* told = telling_; told; told = told->outer)
    if (told->key == key) (present ? told->present : told->absent) = true;
}

// What was read meanwhile was damage, and may not be what is there now.
bool Mount::mend() {
  if (!mapping_->cutShort() || !mapping_->mend(view_->extent())) return false;
  wholeOwed_ = true;
  followOwed_ = true;
  if (watch_) watch_->wakeSelf();
  return !view_->isWrittenOver();
}

// Neither another file at the path, nor one that was cut and may be whole again, nor another table in it. An
// older state of this one has fewer changes, and is taken for falling behind.
bool Mount::isCurrent() const {
  return mapping_->isCurrent() && !mapping_->cutShort() && !view_->isWrittenOver();
}

// A watcher that throws ends the dispatch, and what is left is told in the next.
void Mount::dispatch() {
  fd();
  try {
    dispatchSlice();
  } catch (...) {
    watch_->wakeSelf();
    throw;
  }
}

// What lies there is told before the descriptor is asked what else there is: most often, nothing. Asleep
// before the last look: a change that this look misses wakes it.
void Mount::dispatchSlice() {
  watch_->asleepIs(false);
  if (!mapping_->cutShort()) deliver();
  Watch::News const news = watch_->drain();
  writerWent_ |= news.writerWent;
  if (!news.problem.empty()) sink_.damaged(news.problem);
  if (news.fileMayBeAnother || news.writerWent || followOwed_) follow();
  if (mapping_->cutShort()) mend();
  bool more = deliver();
  if (!more) {
    watch_->asleepIs(true);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    auto const head = readHead();
    more = head && *head != position_;
    if (more) watch_->asleepIs(false);
  }
  if (more) watch_->wakeSelf();
}

// What cannot be opened now, for want of descriptors perhaps, is tried again soon; what is no such table,
// when something else happens.
void Mount::follow() {
  followOwed_ = !isCurrent();
  if (!followOwed_) return;
  try {
    openFile();
    watch_->fileIsNew();
    followOwed_ = false;
    wholeOwed_ = true;
    complaint_.clear();
  } catch (FileException const& error) {
    if (error.reason() == FileException::Reason::notAllowed) watch_->wakeSelfSoon();
    if (error.reason() != FileException::Reason::missing) complain(error.what());
  } catch (Pallo::CorruptionDetectedException const& error) {
    sink_.damaged(error.what());
  }
}

// Once, however often it is tried.
void Mount::complain(std::string const& what) {
  if (std::exchange(complaint_, what) != what) sink_.damaged(what);
}

// Nothing when the word is damaged, which is reported once.
std::optional<U64> Mount::readHead() {
  try {
    U64 const head = view_->head();
    damagedHead_ = false;
    return head;
  } catch (Pallo::CorruptionDetectedException const& error) {
    if (!std::exchange(damagedHead_, true)) sink_.damaged(error.what());
    return std::nullopt;
  }
}

// True when there is more to tell.
bool Mount::deliver() {
  if (wholeOwed_) tellWhole();
  for (int told = 0; told < slice; ++told) {
    auto const head = readHead();
    if (!head) return false;
    if (*head == position_) return tellUnfinished(), false;
    if (!deliverNext(*head)) return false;
  }
  return true;
}

bool Mount::deliverNext(U64 head) {
  bool const inRing = position_ < head && head - position_ < view_->header().ringEntries;
  auto key = inRing ? view_->changedKey(position_) : std::nullopt;
  // Whose place was taken meanwhile is not the key it was.
  auto const since = readHead();
  if (!since || *since - position_ >= view_->header().ringEntries) key.reset();
  if (!key) {
    fellBehind(head);
    return readHead() != position_;
  }
  lookAhead(head);
  ++position_;
  tell(*key);
  return true;
}

void Mount::lookAhead(U64 head) {
  U64 const queued = head - position_;
  if (queued > lineAhead) view_->prefetchLine(view_->announcedKey(position_ + lineAhead));
  if (queued > recordAhead) view_->prefetchRecord(view_->announcedKey(position_ + recordAhead));
}

// A writer that died may have published a change that it did not come to count.
void Mount::tellUnfinished() {
  if (!std::exchange(writerWent_, false)) return;
  if (auto const key = view_->changedKey(position_)) tell(*key);
}

// Its later changes are told of from here on.
void Mount::fellBehind(U64 head) {
  position_ = head;
  wholeOwed_ = true;
  tellWhole();
}

void Mount::tellWhole() {
  tellOfTheVanished();
  sink_.anythingChanged();
  wholeOwed_ = false;
}

void Mount::tellOfTheVanished() {
  auto const vanished = known_->those([this](U64 key) { return !view_->contains(key); });
  for (U64 const key : vanished) {
    known_->erase(key);
    sink_.changed(key);
  }
}

void Mount::tell(U64 key) {
  Telling told{key, telling_};
  telling_ = &told;
  try {
    sink_.changed(key);
  } catch (...) {
    learn(told);
    throw;
  }
  learn(told);
}

// A key that every watcher who looked found absent is nobody's any more. Where nobody looked, the mount does.
void Mount::learn(Telling const& told) {
  telling_ = told.outer;
  if (told.present) return;
  if (told.absent || !view_->contains(told.key))
    known_->erase(told.key);
  else
    known_->insert(told.key);
}

}  // namespace Shoal
