#include "tlv_package.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

// Builds cells in every shape the access rules distinguish, including ones
// the host's setters never produce (a heap flag with a null pointer).
struct TlvCellTestAccess {
  static void setRaw(CTLVCell& cell, int type, unsigned short tag, unsigned length, bool heap,
                     unsigned char* ptr) {
    cell.value_.clear();
    cell.length_ = length;
    cell.typeTag_ = static_cast<uint16_t>((tag << 4) | type);
    cell.value_.heap_ = heap ? 1 : 0;
    cell.value_.ptr_ = ptr;
  }
  static const CellValue& value(const CTLVCell& cell) { return cell.value_; }
};

namespace {

std::string textOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const QPNException& e) {
    return e.what();
  }
  return "<no exception>";
}

CTLVCell makeCell(int type, unsigned short tag, std::vector<unsigned char> bytes) {
  CTLVCell cell;
  cell.set_i(static_cast<CTLVCell::ETLVType>(type), tag, bytes.empty() ? nullptr : bytes.data(),
             bytes.size());
  return cell;
}

}  // namespace

TEST(PackageIndexTest, IndexEqualToSizeThrows) {
  CR3MPackageV3 package;
  package.addRecord(1, 13);
  package.addRecord(2, 13);
  package.addRecord(3, 13);
  EXPECT_EQ(package[2].command(), 3u);
  EXPECT_EQ(textOf([&] { package[3]; }), "Exception:record don't exist, index is 3");
}

TEST(PackageIndexTest, EmptyPackageThrowsForZero) {
  CR3MPackageV3 package;
  EXPECT_EQ(textOf([&] { package[0]; }), "Exception:record don't exist, index is 0");
}

TEST(PackageIndexTest, HugeIndexIsComparedUnsigned) {
  CR3MPackageV3 package;
  package.addRecord(1, 13);
  EXPECT_EQ(textOf([&] { package[static_cast<size_t>(-1)]; }),
            "Exception:record don't exist, index is 18446744073709551615");
}

TEST(PackageTest, ClearReleasesRecordsAndCopiesAreDeep) {
  CR3MPackageV3 package;
  package.addRecord(0xE0000052, 13)[70].setString(70, "/a/long/path/beyond/seven/bytes.pem");
  CR3MPackageV3 copy(package);
  package.clear();
  EXPECT_EQ(package.size(), 0u);
  ASSERT_EQ(copy.size(), 1u);
  EXPECT_STREQ(static_cast<const char*>(copy[0][70]), "/a/long/path/beyond/seven/bytes.pem");
  CR3MPackageV3 assigned;
  assigned = copy;
  copy.clear();
  EXPECT_STREQ(static_cast<const char*>(assigned[0][70]), "/a/long/path/beyond/seven/bytes.pem");
}

TEST(CellTextTest, InlineAndHeapText) {
  CTLVCell shortText;
  shortText.setString(9, "0");
  EXPECT_EQ(shortText.getLength(), 2u);  // the terminating zero counts
  EXPECT_EQ(TlvCellTestAccess::value(shortText).heap_, 0);
  EXPECT_STREQ(static_cast<const char*>(shortText), "0");

  CTLVCell longText;
  longText.setString(70, "/var/lib/nox/tmp/upload.pem");
  EXPECT_EQ(TlvCellTestAccess::value(longText).heap_, 1);
  EXPECT_STREQ(static_cast<const char*>(longText), "/var/lib/nox/tmp/upload.pem");
}

TEST(CellTextTest, SevenBytesStayInline) {
  CTLVCell cell;
  cell.setString(1, "abcdef");  // six characters and the zero: seven bytes
  EXPECT_EQ(TlvCellTestAccess::value(cell).heap_, 0);
  EXPECT_STREQ(static_cast<const char*>(cell), "abcdef");
  cell.setString(1, "abcdefg");  // eight bytes: heap
  EXPECT_EQ(TlvCellTestAccess::value(cell).heap_, 1);
  EXPECT_STREQ(static_cast<const char*>(cell), "abcdefg");
}

TEST(CellTextTest, InlineTextOfLengthZeroReturnsInlineBytes) {
  CTLVCell cell;
  cell.set_i(CTLVCell::TLV_STRING, 5, nullptr, 0);
  EXPECT_STREQ(static_cast<const char*>(cell), "");
}

TEST(CellTextTest, HeapFlagWithNullPointerThrows) {
  CTLVCell cell;
  TlvCellTestAccess::setRaw(cell, 2, 17, 0, true, nullptr);
  // No blank between the comma and "tag": the wording is kept as the host has it.
  EXPECT_EQ(textOf([&] { (void)static_cast<const char*>(cell); }),
            "Exception:CTLVCell string value is null,tag 17 length 0");
}

TEST(CellTextTest, NumericCellReadAsTextThrows) {
  CTLVCell cell;
  cell.setUInt32(64, 3);
  EXPECT_EQ(textOf([&] { (void)static_cast<const char*>(cell); }),
            "Exception:CTLVCell isn't string type! tag equal to 64");
}

TEST(CellIntTest, TextCellReadAsIntThrows) {
  CTLVCell cell;
  cell.setString(76, "4");
  EXPECT_EQ(textOf([&] { (void)static_cast<int>(cell); }),
            "Exception:CTLVCell isn't numerical type! tag equal to 76");
}

TEST(CellIntTest, CellWithoutValueIsNotNumeric) {
  CR3MRecordV3 record;
  CTLVCell& made = record[9];  // a lookup makes the missing cell
  EXPECT_EQ(made.getType(), 0);
  EXPECT_EQ(made.getTag(), 9);
  EXPECT_EQ(textOf([&] { (void)static_cast<int>(made); }),
            "Exception:CTLVCell isn't numerical type! tag equal to 9");
}

struct IntCase {
  int type;
  std::vector<unsigned char> bytes;
  int expected;
  const char* what;
};

TEST(CellIntTest, ConversionTable) {
  const IntCase cases[] = {
      {4, {}, 0, "length 0 gives 0"},
      {3, {}, 0, "length 0 gives 0, unsigned too"},
      {4, {0xFF}, -1, "type 4, one byte: sign-extended"},
      {3, {0xFF}, 255, "type 3, one byte: zero-extended"},
      {5, {0xFF}, 255, "type 5, one byte: zero-extended"},
      {6, {0xFF}, 255, "type 6, one byte: zero-extended"},
      {9, {0xFF}, 255, "type 9, one byte: zero-extended"},
      {4, {0x7F}, 127, "type 4, positive byte"},
      {4, {0xFF, 0xFF}, -1, "type 4, two bytes: sign-extended"},
      {4, {0x00, 0x80}, -32768, "type 4, two bytes, lowest value"},
      {3, {0xFF, 0xFF}, 65535, "type 3, two bytes: zero-extended"},
      {6, {0x34, 0x12}, 0x1234, "little-endian"},
      {4, {0xFF, 0xFF, 0xFF}, 16777215, "three bytes are never sign-extended, type 4 too"},
      {3, {0x01, 0x02, 0x03}, 0x030201, "three bytes, little-endian"},
      {4, {0xFF, 0xFF, 0xFF, 0xFF}, -1, "four bytes"},
      {3, {0xFF, 0xFF, 0xFF, 0xFF}, -1, "four bytes of type 3 still fill an int"},
      {3, {0x78, 0x56, 0x34, 0x12}, 0x12345678, "four bytes, little-endian"},
      {9, {0x01, 0, 0, 0, 0x01, 0, 0, 0}, 1, "eight bytes 0x100000001 are cut to 1"},
      {4, {0x02, 0, 0, 0, 0xFF}, 2, "five bytes: the low four"},
      {9, {0x05, 0, 0, 0, 0, 0, 0}, 5, "seven bytes, inline"},
  };
  for (const IntCase& c : cases) {
    CTLVCell cell = makeCell(c.type, 9, c.bytes);
    EXPECT_EQ(static_cast<int>(cell), c.expected) << c.what;
  }
}

TEST(CellIntTest, HeapValueIsRead) {
  CTLVCell cell = makeCell(9, 9, {0x2A, 0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(TlvCellTestAccess::value(cell).heap_, 1);
  EXPECT_EQ(static_cast<int>(cell), 42);
  EXPECT_EQ(cell.toInt64(), 42);
}

TEST(CellNumericCheckTest, OnlyTypes3To6And9AreNumeric) {
  for (int type = 0; type < 16; ++type) {
    CTLVCell cell = makeCell(type, 300, {1});
    const bool numeric = type == 3 || type == 4 || type == 5 || type == 6 || type == 9;
    if (numeric) {
      EXPECT_NO_THROW(cell.checkNumerical()) << type;
    } else {
      EXPECT_EQ(textOf([&] { cell.checkNumerical(); }),
                "Exception:CTLVCell isn't numerical type! tag equal to 300")
          << type;
    }
  }
}

TEST(CellValueTest, ClearFreesHeapAndZeroesEverything) {
  CellValue value;
  value.heap_ = 1;
  value.ptr_ = new unsigned char[32];  // freed by clear (the leak checker would see it otherwise)
  value.bytes_[3] = 9;
  value.clear();
  EXPECT_EQ(value.heap_, 0);
  EXPECT_EQ(value.ptr_, nullptr);
  for (unsigned char b : value.bytes_) EXPECT_EQ(b, 0);
}

TEST(CellValueTest, ClearWithHeapFlagAndNullPointerFreesNothing) {
  CellValue value;
  value.heap_ = 1;
  value.clear();
  EXPECT_EQ(value.heap_, 0);
}

TEST(CellValueTest, ClearOfInlineValueZeroesBytes) {
  CellValue value;
  value.bytes_[0] = 7;
  value.clear();
  EXPECT_EQ(value.bytes_[0], 0);
}

TEST(CellTest, TagAndTypeArePackedInOneWord) {
  CTLVCell cell;
  cell.setUInt32(0xABC, 1);
  EXPECT_EQ(cell.getTag(), 0xABC);
  EXPECT_EQ(cell.getType(), CTLVCell::TLV_UINT32);
  cell.setInt32(70, -5);
  EXPECT_EQ(cell.getType(), CTLVCell::TLV_INT32);
  EXPECT_EQ(static_cast<int>(cell), -5);
  EXPECT_EQ(cell.toInt64(), -5);
}

TEST(CellTest, ToStringRendersEachKind) {
  CTLVCell text;
  text.setString(9, "1620000001");
  EXPECT_EQ(text.toString(), "1620000001");
  CTLVCell number;
  number.setUInt64(6, 1700000000ULL);
  EXPECT_EQ(number.toString(), "1700000000");
  CTLVCell json;
  std::string body = "{\"code\":\"1\"}";
  json.set_i(CTLVCell::TLV_JSON, 0x62, &body[0], body.size());
  EXPECT_EQ(json.toString(), body);
  CTLVCell binary = makeCell(1, 3, {0x00, 0xFF});
  EXPECT_EQ(binary.toString(), "00ff");
  CTLVCell none;
  EXPECT_THROW(none.toString(), QPNException);
}

TEST(RecordTest, LookupCreatesOnlyThroughOperator) {
  CR3MRecordV3 record(0xE0000049, 13);
  EXPECT_EQ(record.find(70), nullptr);
  EXPECT_FALSE(record.has(70));
  record[70].setString(70, "/x");
  EXPECT_TRUE(record.has(70));
  EXPECT_EQ(record.cellCount(), 1u);
  EXPECT_EQ(&record[70], record.find(70));
}

TEST(RecordTest, AppendInnerTakesOwnershipAndReplacesSameTag) {
  CR3MRecordV3 record;
  CTLVCell* first = new CTLVCell();
  first->setUInt32(0, 0xE027);
  record.appendInner(first);
  CTLVCell* second = new CTLVCell();
  second->setUInt32(0, 2);
  record.appendInner(second);
  ASSERT_EQ(record.cellCount(), 1u);
  EXPECT_EQ(static_cast<int>(record[0]), 2);
  CTLVCell* other = new CTLVCell();
  other->setUInt32(3, 1);
  record.appendInner(other);
  EXPECT_EQ(record.cellCount(), 2u);
  EXPECT_EQ(record.cellAt(1).getTag(), 3);
}

TEST(RecordTest, CopyIsDeep) {
  CR3MRecordV3 record(5, 13);
  record[88].setString(88, "[{\"id\":\"1600000001\"}]");
  CR3MRecordV3 copy(record);
  record[88].setString(88, "");
  EXPECT_STREQ(static_cast<const char*>(copy[88]), "[{\"id\":\"1600000001\"}]");
  EXPECT_EQ(copy.command(), 5u);
  EXPECT_EQ(copy.word(), 13u);
}

TEST(CellTest, CopyOfNullHeapValueKeepsItsState) {
  CTLVCell cell;
  TlvCellTestAccess::setRaw(cell, 2, 17, 0, true, nullptr);
  CTLVCell copy(cell);
  EXPECT_EQ(textOf([&] { (void)static_cast<const char*>(copy); }),
            "Exception:CTLVCell string value is null,tag 17 length 0");
}
