// A host program that keeps its settings in a document: builds it, writes it, reads it back, finds
// a value, and refuses a file written by a newer version of the application.
#include <qorxmlu/qorxmlu.h>

#include <cstdio>
#include <filesystem>

using namespace QOR;

namespace {
// True for success; prints and deletes the record of a failure.
bool Report(ErrorPtr error, const char* step) {
  if (error) std::printf("%s failed: %s\n", step, error->FullText().ToUtf8().c_str());
  return !error;
}
} // namespace

int main() {
  XML::SetAppVersion(2);
  XML settings("Settings", "", "Version", "2");
  settings.TopTag()->NestTag("Server", "example.org", "port", "8080");
  settings.TopTag()->NestTag("Greeting", "Grüße, 世界");
  *settings.TopTag()->NestTag("Retries") << 3;

  std::printf("-- written --\n%s", settings.GetText().ToUtf8().c_str());
  auto path = std::filesystem::temp_directory_path() / "qorxmlu-settings.xml";
  if (!Report(ErrorPtr(settings.Write(path.u16string())), "Write")) return 1;

  XML loaded;
  if (!Report(ErrorPtr(loaded.ReadFile(path.u16string())), "ReadFile")) return 1;
  int version = 0;
  if (!Report(ErrorPtr(loaded.CheckVersion("Settings demo", "", version)), "CheckVersion")) return 1;
  int retries = 0;
  if (XMLTag* tag = loaded.TopTag()->FindNestedTag("Retries")) *tag >> retries;
  XMLTag* host = loaded.TopTag()->FindNestedTag("Server");
  std::printf("-- read back --\nversion %d, %zu tags, server %s port %s, retries %d\n", version,
              loaded.TopTag()->NoOfNestedTags(), host ? host->GetValue().ToUtf8().c_str() : "?",
              host ? host->GetAttrVal(0).ToUtf8().c_str() : "?", retries);

  XML::SetAppVersion(1); // an older application meets the same file
  ErrorPtr refused(loaded.CheckVersion("Settings demo", "", version));
  std::printf("-- as version 1 of the application --\n%s\n",
              refused ? refused->FullText().ToUtf8().c_str() : "accepted (unexpected)");
  std::filesystem::remove(path);
  return refused ? 0 : 1;
}
