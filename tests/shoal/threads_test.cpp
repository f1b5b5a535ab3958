// SPDX-License-Identifier: Apache-2.0
// A writer and readers as threads of one process over one mapping, so that the thread sanitizer sees both
// sides of every word. Readers check each record against its own content, and that its version is never less
// than what was written before they read, or than what they saw.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include "fixture.h"
#include "shoal/table_view.h"
#include "shoal/table_writer.h"

namespace ShoalTest {
namespace {

constexpr U64 keys = 400;
constexpr U64 writes = 40000;

using Traits = Shoal::RecordTraits<Config>;

struct Findings {
  U64 reads = 0;
  U64 bad = 0;
  U64 missedInWalk = 0;
};

// What was written last of each key.
using Written = std::array<std::atomic<U64>, keys + 1>;

Findings read(Shoal::TableView& view, std::atomic<bool> const& stop, Written const& written, U64 seed) {
  Findings found;
  std::mt19937_64 random(seed);
  std::map<U64, U64> newest;
  do {
    for (int i = 0; i < 500; ++i) {
      U64 const key = 1 + random() % keys;
      newest[key] = std::max(newest[key], written[key].load(std::memory_order_acquire));
      ++found.reads;
      Config r = Traits::unset();
      Shoal::Extent const extent = view.read(key, reinterpret_cast<U64*>(Traits::image(r)));
      if (extent.isEmpty()) continue;
      Traits::accept(r, extent);
      U64 const version = r.opId().value();
      if (!isWhole(r) || r.key().value() != key || version < newest[key]) ++found.bad;
      newest[key] = version;
    }
    // The odd keys are never removed: every walk meets them all.
    std::set<U64> met;
    for (auto place = view.walk(0); place; place = view.walk(place->hint)) met.insert(place->key);
    for (U64 key = 1; key <= keys; key += 2) found.missedInWalk += !met.contains(key);
  } while (!stop);  // a busy machine may begin a reader when the writer is done
  return found;
}

TEST(Threads, ReadWholeRecordsBesideTheWriter) {
  Directory dir;
  Shoal::TableWriter writer(dir / "t", Shoal::shapeOf<Config>(), {.ringEntries = 64});
  auto const put = [&](U64 key, U64 version) {
    std::array<U64, Traits::bytes / 8> image;
    Shoal::Extent const extent =
        Traits::encode(record(key, version), reinterpret_cast<std::byte*>(image.data()));
    writer.put(key, image.data(), extent);
  };
  for (U64 key = 1; key <= keys; key += 2) put(key, 1);
  std::atomic<bool> stop = false;
  Written written{};
  std::array<Findings, 2> found;
  std::vector<std::thread> readers;
  for (U64 i = 0; i < found.size(); ++i) {
    readers.emplace_back([&, i] {
      Shoal::TableView view(writer.mapping());
      found[i] = read(view, stop, written, i);
    });
  }
  std::mt19937_64 random(17);
  for (U64 version = 2; version <= writes; ++version) {
    U64 const key = 1 + random() % keys;
    if (key % 2 == 0 && random() % 2) {
      writer.remove(key);
    } else {
      put(key, version);
      written[key].store(version, std::memory_order_release);
    }
    if (version % 100 == 0) put(1000000 + version, version);  // the index grows meanwhile
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  for (Findings const& f : found) {
    std::printf("%lu reads\n", f.reads);
    EXPECT_GT(f.reads, 0U);
    EXPECT_EQ(f.bad, 0U);
    EXPECT_EQ(f.missedInWalk, 0U);
  }
}

}  // namespace
}  // namespace ShoalTest
