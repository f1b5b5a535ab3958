// SPDX-License-Identifier: Apache-2.0
#include "pallo/poller.h"

#include <system_error>

namespace Pallo {
namespace {

void control(int epoll, int operation, int fd, U64 tag, U32 events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = tag;
  if (::epoll_ctl(epoll, operation, fd, &event) != 0)
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}

}  // namespace

Poller::Poller() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

void Poller::add(int fd, U64 tag, U32 events) { control(epoll_.get(), EPOLL_CTL_ADD, fd, tag, events); }

void Poller::change(int fd, U64 tag, U32 events) { control(epoll_.get(), EPOLL_CTL_MOD, fd, tag, events); }

void Poller::remove(int fd) { ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr); }

std::span<Poller::Event const> Poller::ready(Events& events) const {
  std::array<epoll_event, atOnce> raw;
  int const n = ::epoll_wait(epoll_.get(), raw.data(), static_cast<int>(raw.size()), 0);
  std::size_t const count = n < 0 ? 0 : static_cast<std::size_t>(n);
  for (std::size_t i = 0; i < count; ++i) events[i] = {raw[i].data.u64, raw[i].events};
  return {events.data(), count};
}

}  // namespace Pallo
