// The sample service itself (native builds only): bodies it must refuse, uploads it stores, HTTPS,
// the serve command's settings, and the demo from end to end.
#include "SampleService.h"
#include "TempDir.h"
#include "TestPki.h"
#include "ToolRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <sstream>

using testing::HasSubstr;

namespace QOR::test {
namespace {

const std::string boundary = "gc0p4Jq0M2Yt08jU534c0p";
const std::string formType = "multipart/form-data; boundary=" + boundary;

std::string TextPart(const std::string& name, const std::string& value) {
  return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name +
         "\"\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + value;
}

TEST(SampleServiceTest, MalformedBodiesGetAClear400AndTheServiceGoesOn) {
  ASSERT_NE(ToolService(), "");
  httplib::Client client("http://" + ToolService());
  struct Case {
    const char* what;
    std::string body;
    std::string type;
    const char* reason;
  } cases[] = {
      {"no form", "id=7", "application/x-www-form-urlencoded", "not a multipart/form-data form"},
      {"no type", "id=7", "", "not a multipart/form-data form"},
      {"no boundary", TextPart("id", "7") + "\r\n--" + boundary + "--", "multipart/form-data", "malformed"},
      {"garbage", std::string("\0\x01junk\xff", 7), formType, "malformed"},
      {"no close delimiter", TextPart("id", "7"), formType, "malformed"},
      {"part without head end", "--" + boundary + "\r\nContent-Disposition: form-data; name=\"id\"\r\n7", formType,
       "malformed"},
  };
  for (const Case& bad : cases) {
    auto reply = client.Post("/x", bad.body, bad.type.c_str());
    ASSERT_TRUE(reply) << bad.what;
    EXPECT_EQ(reply->status, 400) << bad.what;
    EXPECT_THAT(reply->body, HasSubstr(bad.reason)) << bad.what;
  }
  // The library's empty form, and its bodies that end right at the close delimiter, are forms.
  for (const std::string& body : {"\r\n--" + boundary + "--", TextPart("id", "7") + "\r\n--" + boundary + "--"}) {
    auto reply = client.Post("/x", body, formType.c_str());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_THAT(reply->body, HasSubstr("<Success>0</Success>"));
  }
}

TEST(SampleServiceTest, StoresOnlyUploadsToTheTraceScript) {
  ASSERT_NE(ToolService(), "");
  TempDir folder;
  folder.Write("trace.txt", "Entering A::B\r\nLeaving A::B\r\n");
  std::filesystem::remove_all(ToolServiceUploads());
  ChildRun elsewhere = Qorxml({"post", ToolService(), "/upload", "--file", folder.Path("trace.txt").string()});
  ASSERT_EQ(elsewhere.exitStatus, 0) << elsewhere.err;
  EXPECT_THAT(elsewhere.out, testing::Not(HasSubstr("<StoredAs>")));
  EXPECT_FALSE(std::filesystem::exists(ToolServiceUploads()));

  ChildRun trace = Qorxml({"post", ToolService(), "/php/SafeTrace.php", "-F", "dummy=dummy", "--file",
                           folder.Path("trace.txt").string()});
  ASSERT_EQ(trace.exitStatus, 0) << trace.err;
  auto at = trace.out.find("<StoredAs>");
  ASSERT_NE(at, std::string::npos) << trace.out;
  std::string storedAs = trace.out.substr(at + 10, trace.out.find("</StoredAs>") - at - 10);
  EXPECT_THAT(storedAs, testing::EndsWith("-trace.txt"));
  EXPECT_EQ(ReadAndRemove(ToolServiceUploads() / storedAs), folder.Read("trace.txt"));
}

TEST(SampleServiceTest, EchoesWhatTheDialectCannotCarryOnOneLine) {
  ASSERT_NE(ToolService(), "");
  ChildRun run = Qorxml({"query", ToolService(), "/q", "-p", "note=a<b>\r\nc\nd!--e", "-p", "prefix=x</y>"});
  EXPECT_EQ(run.exitStatus, 1);
  EXPECT_THAT(run.out, HasSubstr("<Value>a[lt]b[gt][crlf]c[crlf]d[excl]--e</Value>"));
  EXPECT_THAT(run.out, HasSubstr("outcome: error: x[lt]/y[gt]\n"));
}

TEST(SampleServiceTest, ServesHttpsWithTheGivenCertificateAndLogsOneLinePerRequest) {
  TestPki::ServerFiles files = TestPki::Server(TestPki::Kind::trusted);
  std::ostringstream log;
  qorxml::ServiceSettings settings;
  settings.port = 0;
  settings.certificateFile = files.certificate;
  settings.keyFile = files.key;
  settings.log = &log;
  std::string error;
  auto service = qorxml::StartSampleService(settings, error);
  ASSERT_TRUE(service) << error;
  EXPECT_THAT(service->Url(), testing::StartsWith("https://127.0.0.1:"));
  ChildRun run = Qorxml({"post", "127.0.0.1:" + std::to_string(service->Port()), "/secure", "--secure", "-F", "a=1",
                         "-F", "b=2"},
                        {{"SSL_CERT_FILE", TestPki::CaFile()}});
  EXPECT_EQ(run.exitStatus, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("<Path>/secure</Path>"));
  service->Stop();
  std::istringstream lines(log.str());
  std::string first, more;
  std::getline(lines, first);
  EXPECT_THAT(first, testing::MatchesRegex("[0-9:]{8} 127\\.0\\.0\\.1 POST /secure 200 in=[0-9]+ out=[0-9]+ fields=2"));
  EXPECT_FALSE(std::getline(lines, more)) << more;
  EXPECT_EQ(service->Requests(), 1u);
}

TEST(ServeCommandTest, RefusesWhatItCannotServe) {
  ChildRun badListen = Qorxml({"serve", "--listen", "localhost"});
  EXPECT_EQ(badListen.exitStatus, 2);
  EXPECT_THAT(badListen.err, HasSubstr("--listen takes ADDR:PORT"));

  ChildRun badTls = Qorxml({"serve", "--listen", "127.0.0.1:0", "--tls", "no-cert.pem", "no-key.pem"});
  EXPECT_EQ(badTls.exitStatus, 1);
  EXPECT_THAT(badTls.err, HasSubstr("cannot use the certificate no-cert.pem"));
}

TEST(DemoCommandTest, RunsTheWholeStoryAndLeavesNothingBehind) {
  auto demoFolders = [] {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
      count += entry.path().filename().string().rfind("qorxml-demo-", 0) == 0;
    return count;
  };
  int before = demoFolders();
  ChildRun demo = Qorxml({"demo"});
  EXPECT_EQ(demo.exitStatus, 0) << demo.out << demo.err;
  for (const char* step : {"\nservice ", "\ndocument ", "\nversion ", "\nqueries ", "\nupload ", "\ntrace ",
                           "\nnext start "})
    EXPECT_THAT(demo.out, HasSubstr(step));
  EXPECT_THAT(demo.out, HasSubstr("thread 3: error \"Demo service refused the query; Soap error: 7\""));
  EXPECT_THAT(demo.out, HasSubstr(" 100\n"));
  EXPECT_THAT(demo.out, HasSubstr("SHA-256"));
  EXPECT_THAT(demo.out, HasSubstr("every step as expected"));
  EXPECT_EQ(demoFolders(), before);
}

} // namespace
} // namespace QOR::test
