// qorxml's check, fmt, post and query, run as a host's user runs them: as a child process, against
// the sample service.
#include "TempDir.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace QOR::test {
namespace {

constexpr char abcSha256[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string PathText(const TempDir& folder, const std::string& name) { return folder.Path(name).string(); }

TEST(ToolCheckTest, ReportsEachFileAndFailsIfAnyFails) {
  TempDir folder;
  folder.Write("v2.xml", "<?xml version=\"1.0\"?>\n<Data Version=\"2\">\n<Item>1</Item>\n</Data>\n");
  folder.Write("junk.xml", "not a document\nat all\n");
  std::string v2 = PathText(folder, "v2.xml"), junk = PathText(folder, "junk.xml");

  ChildRun mixed = Qorxml({"check", v2, junk, PathText(folder, "missing.xml"), "--app-version", "2"});
  EXPECT_EQ(mixed.exitStatus, 1);
  EXPECT_THAT(mixed.out, HasSubstr(v2 + ": ok\n"));
  EXPECT_THAT(mixed.out, HasSubstr(junk + ": Unrecognised XML version\n"));
  EXPECT_THAT(mixed.out, HasSubstr("missing.xml: "));
  EXPECT_THAT(mixed.out, testing::Not(HasSubstr("missing.xml: ok")));

  ChildRun tooNew = Qorxml({"check", v2, "--software", "Acme Editor"});
  EXPECT_EQ(tooNew.exitStatus, 1);
  EXPECT_THAT(tooNew.out, HasSubstr("The Acme Editor software handles only data files of version number 1"));

  ChildRun good = Qorxml({"check", v2, "--app-version", "3"});
  EXPECT_EQ(good.exitStatus, 0);
  EXPECT_EQ(good.out, v2 + ": ok\n");
}

TEST(ToolFmtTest, WritesTheLibrarysOwnFormToStdoutOrAFile) {
  TempDir folder;
  folder.Write("in.xml", "<?xml version=\"1.0\"?>\n<!-- dropped -->\n<Shop   Version=\"3\">\n   <Item>12</Item>\n"
                         "<Empty Id=\"7\"/>\n</Shop>\n");
  const std::string expected = "<?xml version=\"1.0\"?>\r\n<Shop Version=\"3\">\r\n\t<Item>12</Item>\r\n"
                               "\t<Empty Id=\"7\" />\r\n</Shop>\r\n";
  ChildRun toStdout = Qorxml({"fmt", PathText(folder, "in.xml")});
  EXPECT_EQ(toStdout.exitStatus, 0);
  EXPECT_EQ(toStdout.out, expected);

  ChildRun toFile = Qorxml({"fmt", PathText(folder, "in.xml"), "-o", PathText(folder, "in.xml")});
  EXPECT_EQ(toFile.exitStatus, 0);
  EXPECT_EQ(toFile.out, "");
  EXPECT_EQ(folder.Read("in.xml"), expected);

  folder.Write("bad.xml", "<?xml version=\"1.0\"?>\n<A>\n<B>\n</A>\n");
  ChildRun bad = Qorxml({"fmt", PathText(folder, "bad.xml"), "-o", PathText(folder, "never.xml")});
  EXPECT_EQ(bad.exitStatus, 1);
  EXPECT_THAT(bad.err, StartsWith("qorxml fmt: "));
  EXPECT_FALSE(std::filesystem::exists(folder.Path("never.xml")));

  const std::string quoted = "<?xml version=\"1.0\"?>\n<A b='\"1' />\n"; // read, b holds a double quote
  std::string odd = PathText(folder, "odd.xml");
  folder.Write("odd.xml", quoted);
  ChildRun refused = Qorxml({"fmt", odd, "-o", odd});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_THAT(refused.err, HasSubstr(": tag \"A\" would not read back: an attribute value holds a double quote"));
  EXPECT_EQ(folder.Read("odd.xml"), quoted);
  EXPECT_EQ(Qorxml({"fmt", odd}).out, "");
}

class ToolServiceTest : public testing::Test {
protected:
  void SetUp() override { ASSERT_NE(ToolService(), "") << "no sample service for the tool tests"; }
};

TEST_F(ToolServiceTest, PostSendsFieldsAndFileAndPrintsTheReply) {
  TempDir folder;
  folder.Write("abc.txt", "abc");
  ChildRun run = Qorxml({"post", ToolService(), "form", "--prefix", "/api/", "-F", "id=7", "-F", "note=two words",
                         "--file", PathText(folder, "abc.txt")});
  ASSERT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_THAT(run.out, StartsWith("<?xml version=\"1.0\"?>\r\n<Reply>\r\n\t<Success>0</Success>\r\n"));
  EXPECT_THAT(run.out, HasSubstr("<Path>/api/form</Path>"));
  EXPECT_THAT(run.out, HasSubstr("\t\t<Name>id</Name>\r\n\t\t<Value>7</Value>\r\n"));
  EXPECT_THAT(run.out, HasSubstr("\t\t<Name>note</Name>\r\n\t\t<Value>two words</Value>\r\n"));
  EXPECT_THAT(run.out, HasSubstr("\t\t<Field>userfile</Field>\r\n\t\t<Name>abc.txt</Name>\r\n\t\t<Size>3</Size>\r\n"
                                 "\t\t<SHA256>" + std::string(abcSha256) + "</SHA256>\r\n"));
}

TEST_F(ToolServiceTest, PostFailuresSetTheExitStatus) {
  ChildRun refused = Qorxml({"post", "127.0.0.1:1", "/x", "--connect-timeout", "5"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_THAT(refused.err, StartsWith("qorxml post: "));
  EXPECT_EQ(refused.out, "");

  ChildRun badField = Qorxml({"post", ToolService(), "/x", "-F", "no-equals-sign"});
  EXPECT_EQ(badField.exitStatus, 2);
  EXPECT_THAT(badField.err, HasSubstr("\"no-equals-sign\""));
}

TEST_F(ToolServiceTest, QueryPrintsTheReplyAndTheQueuesJudgement) {
  ChildRun good = Qorxml({"query", ToolService(), "lookup", "--prefix", "/", "-p", "customer=42"});
  ASSERT_EQ(good.exitStatus, 0) << good.err;
  EXPECT_THAT(good.out, HasSubstr("<Value>42</Value>"));
  EXPECT_THAT(good.out, testing::EndsWith("</Reply>\r\noutcome: success\n"));

  ChildRun refused = Qorxml({"query", ToolService(), "/lookup", "-p", "status=5", "-p", "prefix=Not today"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_THAT(refused.out, HasSubstr("<Success>5</Success>"));
  EXPECT_THAT(refused.out, testing::EndsWith("outcome: error: Not today; Soap error: 5\n"));

  ChildRun notThere = Qorxml({"query", "127.0.0.1:1", "/lookup"});
  EXPECT_EQ(notThere.exitStatus, 1);
  EXPECT_THAT(notThere.out, StartsWith("outcome: error: "));
}

TEST(ToolHelpTest, EverySubcommandHasHelp) {
  for (const char* command : {"check", "fmt", "post", "query", "serve", "demo"}) {
    ChildRun help = Qorxml({command, "--help"});
    EXPECT_EQ(help.exitStatus, 0) << command;
    EXPECT_THAT(help.out, HasSubstr(std::string("qorxml ") + command)) << command;
  }
  EXPECT_NE(Qorxml({}).exitStatus, 0);
}

} // namespace
} // namespace QOR::test
