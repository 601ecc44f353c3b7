#include <qorxmlu/foundation/FormatableTextFile.h>
#include <qorxmlu/foundation/LineParsableFile.h>
#include <qorxmlu/foundation/ParsableText.h>
#include <qorxmlu/foundation/ReadableFile.h>
#include <qorxmlu/foundation/WriteableFile.h>

#include "TempDir.h"

#include "StringPrinter.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <vector>

namespace QOR {
namespace {

std::vector<String> ReadLines(const String& path, std::size_t maxLength = 0, ErrorInfo** failure = nullptr) {
  LineParsableFile file(path);
  ErrorInfo* error = file.Open();
  EXPECT_EQ(error, nullptr);
  std::vector<String> lines;
  String line;
  while (file.NextLine(line, error, maxLength)) lines.push_back(line);
  if (failure) *failure = error;
  else EXPECT_EQ(error, nullptr);
  return lines;
}

std::vector<String> SplitText(const String& text) {
  ParsableText parser(text);
  parser.lineMode = true;
  std::vector<String> lines;
  String line;
  while (parser.GetNextElem(&line, 0)) lines.push_back(line);
  return lines;
}

using Lines = std::vector<String>;

TEST(LineReaderTest, FilesAndTextSplitAlikeForEveryLineEnd) {
  test::TempDir dir;
  struct Case {
    std::string bytes;
    Lines lines;
  } cases[] = {
      {"", {}},
      {"a", {u"a"}},
      {"a\n", {u"a"}},
      {"a\r\nb", {u"a", u"b"}},
      {"a\r\nb\r\n", {u"a", u"b"}},
      {"a\n\nb\n", {u"a", u"", u"b"}},
      {"\n", {u""}},
      {"\r\n\r\n", {u"", u""}},
      {"tab\there \r\n  x", {u"tab\there ", u"  x"}},
      {"lone\rcr\n", {u"lone\rcr"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(ReadLines(dir.Write("f.txt", c.bytes)), c.lines);
    EXPECT_EQ(SplitText(String::FromUtf8(c.bytes)), c.lines);
  }
}

TEST(LineReaderTest, AnOddByteAtTheEndOfUtf16EndsTheLinesSafely) {
  test::TempDir dir;
  const Lines lines = ReadLines(dir.Write("odd", std::string("\xFF\xFE<\0a\0\n\0:", 9)));
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], String(u"<a"));
}

TEST(LineReaderTest, TakesTheEncodingFromTheByteOrderMark) {
  test::TempDir dir;
  Lines expected{u"Grüße", u"😀"};
  EXPECT_EQ(ReadLines(dir.Write("plain", "Gr\xC3\xBC\xC3\x9F" "e\r\n\xF0\x9F\x98\x80")), expected);
  EXPECT_EQ(ReadLines(dir.Write("mark", "\xEF\xBB\xBFGr\xC3\xBC\xC3\x9F" "e\n\xF0\x9F\x98\x80\n")), expected);
  std::string le = "\xFF\xFE", be = "\xFE\xFF";
  for (char16_t unit : std::u16string(u"Grüße\r\n😀")) {
    le += static_cast<char>(unit & 0xFF);
    le += static_cast<char>(unit >> 8);
    be += static_cast<char>(unit >> 8);
    be += static_cast<char>(unit & 0xFF);
  }
  EXPECT_EQ(ReadLines(dir.Write("le", le)), expected);
  EXPECT_EQ(ReadLines(dir.Write("be", be)), expected);
  EXPECT_EQ(ReadLines(dir.Write("bad", "ok\n\xC3\n")), (Lines{u"ok", u"\uFFFD"}));
}

TEST(LineReaderTest, LinesLongerThanTheReadBlockAndTheLimit) {
  test::TempDir dir;
  std::string longLine(700000, 'x');
  Lines lines = ReadLines(dir.Write("long", "a\n" + longLine + "\r\nb"));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].Len(), longLine.size());
  EXPECT_EQ(lines[2], String(u"b"));

  ErrorInfo* error = nullptr;
  lines = ReadLines(dir.File("long"), 1000, &error);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->Text().Find(u"Line too long"), -1);
  EXPECT_EQ(lines, (Lines{u"a"}));
  delete error;
  error = nullptr;
  EXPECT_EQ(ReadLines(dir.Write("edge", "abc\nabcd\n"), 3, &error), (Lines{u"abc"})); // the limit itself is allowed
  EXPECT_NE(error, nullptr);
  delete error;
}

TEST(FileTest, MissingFileNamesPathAndReason) {
  test::TempDir dir;
  String path = dir.File("absent.txt");
  ReadableFile file(path);
  std::unique_ptr<ErrorInfo> error(file.Open());
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->Text().Find(path), -1);
  EXPECT_NE(error->Text().Find(u"': "), -1); // the system's reason follows
  LineParsableFile lines(path);
  std::unique_ptr<ErrorInfo> lineError(lines.Open());
  EXPECT_NE(lineError, nullptr);
  ReadableFile folder(dir.File("."));
  std::unique_ptr<ErrorInfo> folderError(folder.Open());
  EXPECT_NE(folderError, nullptr);
}

TEST(FileTest, RawBytesWrittenAreReadExactlyOrTheShortReadIsReported) {
  test::TempDir dir;
  WriteableFile out(dir.File("data"));
  ASSERT_EQ(out.Open(false), nullptr);
  ASSERT_EQ(out.Write("\0\x01", 2), nullptr);
  ASSERT_EQ(out.Write("\x02\x03", 2), nullptr);
  EXPECT_EQ(out.Position(), 4u);
  ASSERT_EQ(out.Flush(true), nullptr);
  ASSERT_EQ(out.Close(), nullptr);
  ReadableFile file(dir.File("data"));
  ASSERT_EQ(file.Open(), nullptr);
  EXPECT_EQ(file.GetFileSize(), 4u);
  char buffer[8] = {};
  ASSERT_EQ(file.ReadFile(buffer, 1), nullptr);
  std::size_t got = 99;
  EXPECT_EQ(file.ReadFile(buffer, 2, &got), nullptr);
  EXPECT_EQ(got, 2u);
  EXPECT_EQ(buffer[1], 2);
  std::unique_ptr<ErrorInfo> shortRead(file.ReadFile(buffer, 4));
  ASSERT_NE(shortRead, nullptr);
  EXPECT_NE(shortRead->Text().Find(u"Unexpected end of file"), -1);
  EXPECT_EQ(file.ReadFile(buffer, 4, &got), nullptr);
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(file.Close(), nullptr);
}

TEST(FileTest, FormatableTextFileWritesItsTextWholeAndTheMarkOnlyAtTheStart) {
  test::TempDir dir;
  String path = dir.File("out.txt");
  std::u16string big; // pairs cross every block boundary of the encoder
  std::string bigBytes;
  for (int i = 0; i < 100000; ++i) {
    big += u"ab😀";
    bigBytes += "ab\xF0\x9F\x98\x80";
  }
  // Each row opens the file (appending or anew), flushes its texts in order, and closes it.
  struct {
    bool append;
    std::vector<std::pair<String, BaseFile::BOM>> flushes;
    std::string bytes;
  } rows[] = {
      {false, {{u"Grüße\r\n", BaseFile::UTF8}, {u"2\r\n", BaseFile::UTF8}}, "Gr\xC3\xBC\xC3\x9F" "e\r\n2\r\n"},
      {true, {{u"3", BaseFile::UTF8WithMark}}, "Gr\xC3\xBC\xC3\x9F" "e\r\n2\r\n3"}, // not at the start: no mark
      {false, {{u"é", BaseFile::UTF8WithMark}}, "\xEF\xBB\xBF\xC3\xA9"},
      {false, {{u"a😀", BaseFile::UTF16LE}}, std::string("\xFF\xFE" "a\0\x3D\xD8\x00\xDE", 8)},
      {false, {{String(big), BaseFile::UTF8}}, bigBytes}, // written whole
  };
  for (const auto& row : rows) {
    FormatableTextFile file(path);
    ASSERT_EQ(file.Open(row.append), nullptr);
    for (std::size_t i = 0; i < row.flushes.size(); ++i) {
      file.text << row.flushes[i].first;
      ASSERT_EQ(file.FlushFile(i > 0, row.flushes[i].second), nullptr);
      EXPECT_TRUE(file.text.IsEmpty());
    }
    ASSERT_EQ(file.Close(), nullptr);
    EXPECT_EQ(dir.Read("out.txt"), row.bytes);
  }
  // Made for its owner to read and write again, whoever runs this.
  auto owner = std::filesystem::perms::owner_read | std::filesystem::perms::owner_write;
  EXPECT_EQ(std::filesystem::status(dir.Path("out.txt")).permissions() & owner, owner);
}

TEST(FileTest, WritingWhereNoFileCanBeGivesAnError) {
  test::TempDir dir;
  FormatableTextFile file(dir.File("no/such/folder/out.txt"));
  std::unique_ptr<ErrorInfo> error(file.Open(false));
  ASSERT_NE(error, nullptr);
  EXPECT_NE(error->Text().Find(u"out.txt"), -1);
  file.text << u"x";
  for (ErrorInfo* unopened : {file.FlushFile(false, BaseFile::UTF8), file.Write("x", 1)}) {
    std::unique_ptr<ErrorInfo> error(unopened);
    ASSERT_NE(error, nullptr);
    EXPECT_NE(error->Text().Find(u"Can't write unopened file"), -1);
  }
}

TEST(ParsableTextTest, WordsAndSeparators) {
  ParsableText words(String(u"  one\ttwo \r\n three "));
  String word;
  Lines found;
  while (words.GetNextElem(&word)) found.push_back(word);
  EXPECT_EQ(found, (Lines{u"one", u"two", u"three"}));
  ParsableText fields(String(u"a,,b"));
  found.clear();
  while (fields.GetNextElem(&word, u',')) found.push_back(word);
  EXPECT_EQ(found, (Lines{u"a", u"", u"b"}));
}

} // namespace
} // namespace QOR
