// Working entry parameters (the enumeration forms and their fixed values) and
// the write-behind buffer's three answers.
#include <core/content/WorkingFileEntryParams.hpp>
#include <core/content/WritableBuffer.hpp>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

using storage::overlayprovider::DiskCaching;
using storage::overlayprovider::Persist;
using storage::overlayprovider::WorkingFileEntryParams;
using storage::overlayprovider::WritableBuffer;
using storage::overlayprovider::WriteOutcome;

namespace {

// The enumeration forms map onto the boolean answers ("on" is 0), and payload sizes keep
// all 64 bits.
TEST(WorkingFileEntryParams, EnumerationFormsAgreeWithTheBooleanAnswers) {
  WorkingFileEntryParams params(4194304, 1048576);
  EXPECT_FALSE(params.withDiskCaching(DiskCaching::Disabled).usesDiskCaching());
  EXPECT_TRUE(params.withDiskCaching(DiskCaching::Enabled).usesDiskCaching());
  EXPECT_TRUE(params.withPersist(Persist::Yes).isPersistent());
  EXPECT_FALSE(params.withPersist(Persist::No).isPersistent());
  EXPECT_EQ(params.withMaxReadPayloadSize(1ull << 40).getMaxReadPayloadSize(), 1ull << 40);
  EXPECT_EQ(params.withMaxWritePayloadSize(1ull << 40).getMaxWritePayloadSize(), 1ull << 40);
}

TEST(WorkingFileEntryParams, EnumerationValuesAreFixed) {
  static_assert(sizeof(DiskCaching) == 4 && sizeof(Persist) == 4);
  EXPECT_EQ(static_cast<int>(DiskCaching::Enabled), 0);
  EXPECT_EQ(static_cast<int>(DiskCaching::Disabled), 1);
  EXPECT_EQ(static_cast<int>(Persist::Yes), 0);
  EXPECT_EQ(static_cast<int>(Persist::No), 1);
  EXPECT_EQ(static_cast<int>(WriteOutcome::Accepted), 0);
  EXPECT_EQ(static_cast<int>(WriteOutcome::Rejected), 1);
  EXPECT_EQ(static_cast<int>(WriteOutcome::AcceptedFull), 2);
}

std::string bytesOf(WritableBuffer const& buffer) {
  std::vector<char> const data = buffer.data();
  return std::string(data.begin(), data.end());
}

TEST(WritableBuffer, GrowsAtItsEndUpToItsCapacity) {
  std::string const forty(40, 'a');
  std::string const twenty(20, 'b');
  WritableBuffer buffer(std::streampos(1000), 100);
  EXPECT_EQ(buffer.write(1000, forty.data(), 40), WriteOutcome::Accepted);
  EXPECT_EQ(buffer.write(1040, forty.data(), 40), WriteOutcome::Accepted);
  EXPECT_EQ(buffer.getBytesWritten(), 80);
  EXPECT_EQ(std::streamoff(buffer.getCurrentPosition()), 1080);

  // 80 + 20 reaches the capacity: refused, nothing changes.
  EXPECT_EQ(buffer.write(1080, twenty.data(), 20), WriteOutcome::Rejected);
  EXPECT_EQ(buffer.getBytesWritten(), 80);
  EXPECT_EQ(bytesOf(buffer), forty + forty);

  // A write not at the running end is refused even though it would fit: one byte past
  // it, one byte before it, or back at the start.
  EXPECT_EQ(buffer.write(1081, "x", 1), WriteOutcome::Rejected);
  EXPECT_EQ(buffer.write(1079, "x", 1), WriteOutcome::Rejected);
  EXPECT_EQ(buffer.write(1000, "x", 1), WriteOutcome::Rejected);

  // A zero-byte write at the end is accepted and changes nothing.
  EXPECT_EQ(buffer.write(1080, nullptr, 0), WriteOutcome::Accepted);
  EXPECT_EQ(buffer.getBytesWritten(), 80);

  // One byte still fits below the capacity.
  EXPECT_EQ(buffer.write(1080, "z", 1), WriteOutcome::Accepted);
  EXPECT_EQ(bytesOf(buffer), forty + forty + "z");
}

TEST(WritableBuffer, AWriteOfAtLeastTheCapacityIsTakenWhole) {
  std::string const small(40, 's');
  std::string const big(150, 'B');
  WritableBuffer buffer(std::streampos(0), 100);
  ASSERT_EQ(buffer.write(0, small.data(), 40), WriteOutcome::Accepted);
  // Into a buffer that already holds bytes, a write of >= capacity is still stored.
  EXPECT_EQ(buffer.write(40, big.data(), 150), WriteOutcome::AcceptedFull);
  EXPECT_EQ(buffer.getBytesWritten(), 190);
  EXPECT_EQ(bytesOf(buffer), small + big);
  EXPECT_EQ(buffer.getStartPosition(), std::streampos(0));

  // Exactly the capacity into an empty buffer.
  std::string const hundred(100, 'h');
  WritableBuffer exact(std::streampos(7), 100);
  EXPECT_EQ(exact.write(7, hundred.data(), 100), WriteOutcome::AcceptedFull);
  EXPECT_EQ(exact.getBytesWritten(), 100);
  EXPECT_EQ(std::streamoff(exact.getCurrentPosition()), 107);

  // Capacity 0: even an empty write reports the buffer full.
  WritableBuffer none(std::streampos(0), 0);
  EXPECT_EQ(none.write(0, nullptr, 0), WriteOutcome::AcceptedFull);
  EXPECT_EQ(none.getBytesWritten(), 0);
}

TEST(WritableBuffer, PositionsCompareByOffsetAndTheDataIsACopy) {
  WritableBuffer buffer(std::streampos(5), 10);
  std::streampos withState(5);
  std::mbstate_t state{};
  state.__count = 3;  // a non-initial conversion state must not matter
  withState.state(state);
  EXPECT_EQ(buffer.write(withState, "abc", 3), WriteOutcome::Accepted);
  EXPECT_EQ(buffer.getCurrentPosition().state().__count, 0);

  std::vector<char> copy = buffer.data();
  copy[0] = 'X';
  EXPECT_EQ(bytesOf(buffer), "abc");
}

}  // namespace
