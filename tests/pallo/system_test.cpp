// SPDX-License-Identifier: Apache-2.0
// Descriptors, the poller, and the guard over truncated mappings.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/mman.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "pallo/descriptor.h"
#include "pallo/guard.h"
#include "pallo/poller.h"

namespace Pallo {
namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

TEST(Descriptor, ClosesAtTheEndOfItsOwner) {
  int number;
  {
    Descriptor const fd(eventfd(0, EFD_CLOEXEC));
    number = fd.get();
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, MovesWithoutClosing) {
  Descriptor first(eventfd(0, EFD_CLOEXEC));
  int const number = first.get();
  Descriptor second = std::move(first);
  EXPECT_FALSE(first);
  EXPECT_EQ(second.get(), number);
  int const given = second.release();
  EXPECT_FALSE(second);
  EXPECT_TRUE(isOpen(given));
  close(given);
}

TEST(Descriptor, KeepsErrnoWhenItCloses) {
  Descriptor fd(eventfd(0, EFD_CLOEXEC));
  close(fd.get());
  errno = ENOSPC;
  fd.reset();  // its close() fails
  EXPECT_EQ(errno, ENOSPC);
}

TEST(Poller, ReportsTagAndEvents) {
  Poller poller;
  Descriptor const fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  poller.add(fd.get(), 7);
  Poller::Events events;
  EXPECT_TRUE(poller.ready(events).empty());
  eventfd_write(fd.get(), 1);
  auto const ready = poller.ready(events);
  ASSERT_EQ(ready.size(), 1U);
  EXPECT_EQ(ready[0].tag, 7U);
  EXPECT_EQ(ready[0].events, U32{EPOLLIN});
  poller.change(fd.get(), 8, EPOLLOUT);
  ASSERT_EQ(poller.ready(events).size(), 1U);
  EXPECT_EQ(events[0].tag, 8U);
  poller.remove(fd.get());
  EXPECT_TRUE(poller.ready(events).empty());
  poller.remove(fd.get());
}

TEST(Poller, RefusesWhatCannotBeWatched) {
  Poller poller;
  EXPECT_THROW(poller.add(-1, 0), std::system_error);
}

class Guard : public testing::Test {
 protected:
  static constexpr U64 bytes = 4 * 4096;
  void SetUp() override {
    fd_ = Descriptor(memfd_create("guard", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(fd_.get(), bytes), 0);
    base_ = static_cast<char*>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0));
    ASSERT_NE(base_, MAP_FAILED);
    window_.watch(base_, bytes, true);
  }
  void TearDown() override {
    window_.unwatch();
    munmap(base_, bytes);
  }
  Descriptor fd_;
  char* base_ = nullptr;
  GuardedWindow window_;
};

TEST_F(Guard, ReadsZeroesBehindATruncation) {
  base_[8192] = 'x';
  ASSERT_EQ(ftruncate(fd_.get(), 4096), 0);
  EXPECT_FALSE(window_.hit());
  EXPECT_EQ(base_[8192], 0);
  EXPECT_TRUE(window_.hit());
  window_.reset();
  EXPECT_FALSE(window_.hit());
}

TEST_F(Guard, WritesBehindATruncationReachNoFile) {
  ASSERT_EQ(ftruncate(fd_.get(), 0), 0);
  base_[0] = 'x';
  EXPECT_TRUE(window_.hit());
  ASSERT_EQ(ftruncate(fd_.get(), bytes), 0);
  char c = 'y';
  ASSERT_EQ(pread(fd_.get(), &c, 1, 0), 1);
  EXPECT_EQ(c, 0);
}

TEST_F(Guard, ZeroesTheAlarmAtAHit) {
  U64 alarm = 7;
  window_.unwatch();
  window_.watch(base_, bytes, true, &alarm);
  base_[0] = 'x';
  EXPECT_EQ(alarm, 7U);
  ASSERT_EQ(ftruncate(fd_.get(), 0), 0);
  base_[0] = 'x';
  EXPECT_EQ(alarm, 0U);
}

using GuardDeathTest = Guard;
TEST_F(GuardDeathTest, LeavesOtherAccessesToTheOldHandler) {
  char* const other = static_cast<char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd_.get(), 0));
  ASSERT_NE(other, MAP_FAILED);
  ASSERT_EQ(ftruncate(fd_.get(), 0), 0);
  EXPECT_DEATH(static_cast<void>(*static_cast<char volatile*>(other)), "");
  munmap(other, 4096);
}

}  // namespace
}  // namespace Pallo
