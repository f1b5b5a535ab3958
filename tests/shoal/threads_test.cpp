// SPDX-License-Identifier: Apache-2.0
// A writer and readers as threads of one process over one mapping, so that the thread sanitizer sees both
// sides of every word. Readers check each record against its own content, and that its version never goes
// back.
#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include "fixture.h"

namespace ShoalTest {
namespace {

constexpr U64 keys = 400;
constexpr U64 writes = 40000;

struct Findings {
  U64 reads = 0;
  U64 bad = 0;
  U64 missedInWalk = 0;
};

Findings read(Shoal::TableView& view, std::atomic<bool> const& stop, U64 seed) {
  Findings found;
  std::mt19937_64 random(seed);
  std::map<U64, U64> newest;
  while (!stop) {
    for (int i = 0; i < 500; ++i) {
      U64 const key = 1 + random() % keys;
      std::byte const* const image = view.read(key);
      ++found.reads;
      if (!image) continue;
      Config const r = Shoal::RecordTraits<Config>::decode(image);
      U64 const version = r.opId().value();
      if (!isWhole(r) || r.key().value() != key || version < newest[key]) ++found.bad;
      newest[key] = version;
    }
    // The odd keys are never removed: every walk meets them all.
    std::set<U64> met;
    for (auto place = view.walk(0); place; place = view.walk(place->hint)) met.insert(place->key);
    for (U64 key = 1; key <= keys; key += 2) found.missedInWalk += !met.contains(key);
  }
  return found;
}

TEST(Threads, OneWriterAndReadersOverOneMapping) {
  Directory dir;
  Shoal::TableWriter writer(dir / "t", Shoal::shapeOf<Config>(), {.ringEntries = 64});
  auto const put = [&](U64 key, U64 version) {
    std::array<std::byte, Shoal::RecordTraits<Config>::bytes> image;
    Shoal::RecordTraits<Config>::encode(record(key, version), image.data());
    writer.put(key, image.data());
  };
  for (U64 key = 1; key <= keys; key += 2) put(key, 1);
  std::atomic<bool> stop = false;
  std::array<Findings, 2> found;
  std::vector<std::thread> readers;
  for (U64 i = 0; i < found.size(); ++i) {
    readers.emplace_back([&, i] {
      Shoal::TableView view(writer.mapping(), Shoal::shapeOf<Config>());
      found[i] = read(view, stop, i);
    });
  }
  std::mt19937_64 random(17);
  for (U64 version = 2; version <= writes; ++version) {
    U64 const key = 1 + random() % keys;
    key % 2 == 0 && random() % 2 ? void(writer.remove(key)) : put(key, version);
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
