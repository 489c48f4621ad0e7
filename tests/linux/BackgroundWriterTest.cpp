#include "linux/BackgroundWriter.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <optional>
#include <semaphore>
#include <thread>
#include <vector>

#include "tests/linux/Samples.h"

namespace Linux {
namespace {

constexpr size_t kMostDirect = 2;

/// A channel that waits for a permit before each batch, except on the thread that made it. Refuses
/// every third table.
class SlowChannel final : public RouteChannel {
 public:
  void perform(std::span<const RouteRequest> requests, std::span<int> results) override {
    if (std::this_thread::get_id() != maker_) permits.acquire();
    for (size_t i = 0; i < requests.size(); ++i) {
      performed.push_back(requests[i].key.table);
      results[i] = requests[i].key.table % 3 == 0 ? ENOBUFS : 0;
    }
    threads.push_back(std::this_thread::get_id());
  }

  std::counting_semaphore<> permits{0};
  // To be read only while no batch is in progress.
  std::vector<TableId> performed;
  std::vector<std::thread::id> threads;

 private:
  const std::thread::id maker_ = std::this_thread::get_id();
};

class BackgroundWriterTest : public testing::Test {
 protected:
  /// Submits a batch of requests with the next numbers as their tables.
  void submit(size_t requests) {
    auto* const batch = writer->vacant();
    ASSERT_NE(batch, nullptr);
    batch->clear();
    for (size_t i = 0; i < requests; ++i) {
      batch->add(RouteRequest::Verb::Delete, {++requested, key4(1).prefix}, 0);
    }
    writer->submit();
  }
  /// Checks the results of a performed batch of `requests` requests, and returns it to the writer.
  void take(RouteBatch* batch, size_t requests) {
    ASSERT_NE(batch, nullptr);
    std::vector<int> expected;
    for (size_t i = 0; i < requests; ++i) expected.push_back(++taken % 3 == 0 ? ENOBUFS : 0);
    EXPECT_EQ(std::vector(batch->results().begin(), batch->results().end()), expected);
    writer->release();
  }
  bool isReadable() const {
    pollfd poll{.fd = writer->fd(), .events = POLLIN, .revents = 0};
    return ::poll(&poll, 1, 0) == 1;
  }

  SlowChannel channel;
  std::optional<BackgroundWriter> writer{std::in_place, channel, kMostDirect};
  TableId requested = 0, taken = 0;
};

TEST_F(BackgroundWriterTest, PerformsSmallBatchesAtOnceAndLargeOnesInItsThread) {
  submit(kMostDirect);
  take(writer->finished(), kMostDirect);
  EXPECT_FALSE(isReadable());
  submit(5);
  submit(1);  // waits for its turn
  EXPECT_EQ(writer->finished(), nullptr);
  channel.permits.release(2);
  take(writer->await(), 5);
  take(writer->await(), 1);
  EXPECT_EQ(writer->await(), nullptr);
  EXPECT_TRUE(isReadable());
  writer->acknowledge();
  submit(1);
  take(writer->finished(), 1);
  ASSERT_EQ(channel.threads.size(), 4u);
  EXPECT_EQ(channel.threads[0], std::this_thread::get_id());
  EXPECT_NE(channel.threads[1], channel.threads[0]);
  EXPECT_EQ(channel.threads[2], channel.threads[1]);
  EXPECT_EQ(channel.threads[3], channel.threads[0]);
}

TEST_F(BackgroundWriterTest, LimitsTheNumberOfBatchesAndKeepsTheirOrder) {
  for (int round = 0; round < 20; ++round) {
    for (size_t i = 0; i < BackgroundWriter::kBatches; ++i) submit(3 + i);
    EXPECT_EQ(writer->vacant(), nullptr);
    channel.permits.release(BackgroundWriter::kBatches);
    for (size_t i = 0; i < BackgroundWriter::kBatches; ++i) take(writer->await(), 3 + i);
  }
  for (TableId i = 0; i < requested; ++i) ASSERT_EQ(channel.performed[i], i + 1);
}

TEST_F(BackgroundWriterTest, PerformsAllSubmittedBatchesBeforeItEnds) {
  for (int i = 0; i < 3; ++i) submit(10);
  channel.permits.release(3);
  writer.reset();
  EXPECT_EQ(channel.performed.size(), 30u);
}

}  // namespace
}  // namespace Linux
