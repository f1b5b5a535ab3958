// SPDX-License-Identifier: Apache-2.0
// The reading face of a table file: reads, and what keeps those informed who watch.
//
//   ring of changes:   ... | 7: k3 | 8: k9 | 9: k3 |        position_ = 8: k9 is told next
//                                            ^ head
//
// One that reads no slower than the ring goes round is told key by key. One that fell behind, or whose file
// became another, is told of each key that it knew and that vanished, and then that anything may have
// changed. It knows the keys that were told, those that a walk met, and those that a look-up found first.
//
// It never decides what a change means, and it waits for nobody.
#include <atomic>
#include <utility>
#include <vector>

#include "ostra/piecewise_map.h"
#include "ostra/time_slice.h"
#include "pallo/exception.h"
#include "shoal/error.h"
#include "shoal/table_file.h"
#include "shoal/table_view.h"
#include "shoal/watch.h"

namespace Shoal {
namespace {

constexpr double usualSlice = 0.002;  // seconds
// How many changes ahead of a told one the index line is prefetched, and then the record: each early enough
// for the memory, and late enough to be still there.
constexpr U64 lineAhead = 8;
constexpr U64 recordAhead = 4;

struct KeyHash {
  std::size_t operator()(U64 key) const { return Format::mix(key); }
};

}  // namespace

// The head of a table whose live words are intact.
static U64 soundHead(TableView const& view) {
  try {
    view.buckets();
    view.size();
    return view.head();
  } catch (Pallo::CorruptionDetectedException const& error) {
    throw FileException(FileException::Reason::damaged, error.what());
  }
}

class VANTREL_LOCAL FileReader::State {
 public:
  State(std::string path, Shape const& shape, Sink& sink, Presence presence);

  Extent read(U64 key, U64* image);
  Change changeOf(U64 key);
  std::optional<FilePlace> walk(U64 hint, bool told);
  U64 size() const { return view_ ? view_->size() : 0; }
  std::string const& path() const { return path_; }
  bool mounted() const { return view_ != nullptr; }
  std::string const& problem() const { return problem_; }
  int fd();
  void dispatch();
  void sliceIs(double seconds) { slice_ = seconds; }

 private:
  // A key while those who watch are told of it, and what their look-ups found.
  struct Telling {
    U64 key;
    Telling* outer;  // one that is told may dispatch
    bool present = false;
    bool absent = false;
  };

  void openFile();
  bool openIfThere();
  bool mend();
  auto mended(auto lookUp);
  void noteFound(U64 key, U64 number);
  bool isCurrent() const;
  void follow();
  void complain(std::string const& what);
  void dispatchSlice();
  void takeNews();
  bool restIsUndisturbed();
  std::optional<U64> readHead();
  bool tellChanges();
  void tellNext(U64 head);
  void tellUnfinished();
  void fellBehind(U64 head);
  void tellWhole();
  void tell(U64 key);
  void learn(Telling const& told);

  std::string const path_;
  std::string const typeName_;
  Shape const shape_;
  Sink& sink_;
  std::shared_ptr<Mapping> mapping_;
  std::unique_ptr<TableView> view_;  // null while there is no table
  std::optional<Watch> watch_;
  Ostra::PiecewiseMap<U64, bool, KeyHash> known_;  // what counts is which keys are there
  Telling* telling_ = nullptr;
  U64 position_ = 0;  // the next change to tell
  double slice_ = usualSlice;
  bool damagedHead_ = false;
  bool writerMayHaveEnded_ = false;
  bool wholeOwed_ = false;   // those who vanished, and that anything may have changed
  bool followOwed_ = false;  // the file at the path may be another
  std::string problem_;      // why it could not be opened
};

FileReader::State::State(std::string path, Shape const& shape, Sink& sink, Presence presence)
    : path_(std::move(path)),
      typeName_(shape.typeName),
      shape_{typeName_, shape.version, shape.imageBytes, shape.tailAt},
      sink_(sink) {
  if (presence == Presence::required)
    openFile();
  else
    openIfThere();
}

void FileReader::State::openFile() {
  auto mapping = std::make_shared<Mapping>(path_, Access::read);
  auto view = std::make_unique<TableView>(mapping);
  checkShape(path_, view->header(), shape_);
  U64 const head = soundHead(*view);
  view->damageSinkIs([this](std::string_view what) { sink_.damaged(what); });
  view_ = std::move(view);
  mapping_ = std::move(mapping);
  position_ = head;
  problem_.clear();
}

// Neither another file at the path, nor one that was truncated and may be whole again, nor another table in
// it. An older state of this one has fewer changes, and is taken for falling behind.
bool FileReader::State::isCurrent() const {
  return view_ && mapping_->isCurrent() && !mapping_->cutShort() && !view_->isWrittenOver();
}

// A table that is removed is read on until there is another.
void FileReader::State::follow() {
  followOwed_ = !isCurrent();
  if (!followOwed_) return problem_.clear();
  followOwed_ = !openIfThere();
  if (followOwed_) return;
  wholeOwed_ = true;
  watch_->lookAgain();  // it is registered with the file at hand
}

// What cannot be opened for want of descriptors or memory is tried again soon; what is no such table, at the
// next look.
bool FileReader::State::openIfThere() {
  try {
    openFile();
    return true;
  } catch (FileException const& error) {
    if (error.reason() == FileException::Reason::shortOfMeans && watch_) watch_->lookAgainSoon();
    if (error.reason() == FileException::Reason::missing)
      problem_.clear();
    else
      complain(error.what());
  } catch (Pallo::Exception const& error) {
    complain(error.what());
  }
  return false;
}

// Once, however often it is tried.
void FileReader::State::complain(std::string const& what) {
  bool const isNew = problem_ != what;
  problem_ = what;
  if (isNew) sink_.damaged(what);
}

// The file was truncated: true when it has its length again and begins as it did. What was read meanwhile was
// damage, and may not be what is there now.
bool FileReader::State::mend() {
  if (!mapping_->cutShort() || !mapping_->mend(view_->extent())) return false;
  wholeOwed_ = followOwed_ = true;
  if (watch_) watch_->lookAgain();
  return !view_->isWrittenOver();
}

inline auto FileReader::State::mended(auto lookUp) {
  for (bool isMended = false;; isMended = true) {
    try {
      return lookUp();
    } catch (Pallo::CorruptionDetectedException const&) {
      if (isMended || !mend()) throw;
    }
  }
}

// `number` of the record's change, 0 when the key is absent. Who finds a record before its change is told
// must be told of its removal even when both are missed.
inline void FileReader::State::noteFound(U64 key, U64 number) {
  for (Telling* told = telling_; told; told = told->outer)
    if (told->key == key) (number != 0 ? told->present : told->absent) = true;
  if (number > position_ && watch_) known_.try_emplace(key);
}

inline Extent FileReader::State::read(U64 key, U64* image) {
  if (!view_) return {};
  U64 const state = mended([=, this] { return view_->find(key, image); });
  noteFound(key, Format::generation(state) / 2);
  return Format::extent(state);
}

Change FileReader::State::changeOf(U64 key) {
  if (!view_) return {};
  Change const change = mended([=, this] { return view_->changeOf(key); });
  noteFound(key, change.number);
  return change;
}

std::optional<FilePlace> FileReader::State::walk(U64 hint, bool told) {
  auto const place = view_ ? view_->walk(hint) : std::nullopt;
  if (place && told) known_.try_emplace(place->key);
  return place;
}

// Between its mounting and the beginning of the watch the file may have been replaced, and its writer may
// have died.
int FileReader::State::fd() {
  if (!watch_) {
    watch_.emplace(path_);
    followOwed_ = writerMayHaveEnded_ = true;
  }
  return watch_->fd();
}

// One that is told and throws ends the dispatch; what is left is told in the next.
void FileReader::State::dispatch() {
  fd();
  try {
    dispatchSlice();
  } catch (...) {
    watch_->lookAgain();
    throw;
  }
}

// What lies there is told before the descriptor is asked what else there is: most often, nothing.
void FileReader::State::dispatchSlice() {
  watch_->asleepIs(false);
  bool more = tellChanges();
  takeNews();
  more = more || tellChanges() || !restIsUndisturbed();
  if (more) watch_->lookAgain();
}

void FileReader::State::takeNews() {
  Watch::News const news = watch_->drain(mapping_ ? mapping_->fd() : -1);
  writerMayHaveEnded_ |= news.writerMayHaveEnded;
  if (!news.problem.empty()) sink_.damaged(news.problem);
  if (news.fileMayBeAnother || news.writerMayHaveEnded || followOwed_) follow();
  if (mapping_ && mapping_->cutShort()) mend();
}

// Asleep before the last look: a change that this look misses wakes it.
bool FileReader::State::restIsUndisturbed() {
  watch_->asleepIs(true);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  auto const head = view_ ? readHead() : std::nullopt;
  bool const undisturbed = !head || *head == position_;
  if (!undisturbed) watch_->asleepIs(false);
  return undisturbed;
}

// Nothing when the word is damaged, which is reported once.
std::optional<U64> FileReader::State::readHead() {
  try {
    U64 const head = view_->head();
    damagedHead_ = false;
    return head;
  } catch (Pallo::CorruptionDetectedException const& error) {
    if (!std::exchange(damagedHead_, true)) sink_.damaged(error.what());
    return std::nullopt;
  }
}

// Returns true when there is more to tell.
bool FileReader::State::tellChanges() {
  if (!view_ || mapping_->cutShort()) return false;
  if (wholeOwed_) tellWhole();
  Ostra::TimeSlice slice(slice_);
  do {
    auto const head = readHead();
    if (!head) return false;
    if (*head == position_) return tellUnfinished(), false;
    tellNext(*head);
  } while (!slice.over());
  return true;
}

void FileReader::State::tellNext(U64 head) {
  U64 const ring = view_->header().ringEntries;
  bool const inRing = position_ < head && head - position_ < ring;
  auto const key = inRing ? view_->changedKey(position_) : std::nullopt;
  // Where the writer has come round meanwhile, the key is not the one of this change.
  auto const since = readHead();
  if (!key || !since || *since - position_ >= ring) return fellBehind(head);
  if (head - position_ > lineAhead) view_->prefetchLine(position_ + lineAhead);
  if (head - position_ > recordAhead) view_->prefetchRecord(position_ + recordAhead);
  ++position_;
  tell(*key);
}

// A writer that died may have published a change that it did not come to announce.
void FileReader::State::tellUnfinished() {
  if (!std::exchange(writerMayHaveEnded_, false)) return;
  if (auto const key = view_->changedKey(position_)) tell(*key);
}

// Later changes are told from here on.
void FileReader::State::fellBehind(U64 head) {
  position_ = head;
  wholeOwed_ = true;
  tellWhole();
}

void FileReader::State::tellWhole() {
  std::vector<U64> gone;
  for (auto const& [key, known] : known_)
    if (!view_->contains(key)) gone.push_back(key);
  for (U64 const key : gone) tell(key);
  sink_.anythingChanged();
  wholeOwed_ = false;
}

void FileReader::State::tell(U64 key) {
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

// Keep the key unless everyone who looked found it absent: who found it present must be told of its removal.
// Where nobody looked, look here.
void FileReader::State::learn(Telling const& told) {
  telling_ = told.outer;
  if (told.present || (!told.absent && view_->contains(told.key)))
    known_.try_emplace(told.key);
  else
    known_.erase(told.key);
}

FileReader::FileReader(std::string path, Shape const& shape, Sink& sink, Presence presence)
    : state_(std::make_unique<State>(std::move(path), shape, sink, presence)) {}
FileReader::~FileReader() = default;
Extent FileReader::read(U64 key, std::byte* image) {
  return state_->read(key, reinterpret_cast<U64*>(image));
}
Change FileReader::changeOf(U64 key) { return state_->changeOf(key); }
std::optional<FilePlace> FileReader::walk(U64 hint, bool told) { return state_->walk(hint, told); }
U64 FileReader::size() const { return state_->size(); }
std::string const& FileReader::path() const { return state_->path(); }
bool FileReader::mounted() const { return state_->mounted(); }
std::string const& FileReader::problem() const { return state_->problem(); }
int FileReader::fd() { return state_->fd(); }
void FileReader::dispatch() { state_->dispatch(); }
void FileReader::sliceIs(double seconds) { state_->sliceIs(seconds); }

}  // namespace Shoal
