// A host program that keeps its settings in a document: builds it, writes it, reads it back, finds
// a value, and refuses a file written by a newer version of the application.
#include <qorxmlu/qorxmlu.h>

#include <cstdio>
#include <filesystem>

using namespace QOR;

namespace {
bool Report(ErrorInfo* error, const char* step) {
  if (!error) return true;
  std::printf("%s failed: %s\n", step, error->FullText().ToUtf8().c_str());
  delete error;
  return false;
}
} // namespace

int main() {
  XML::SetAppVersion(2);
  XML settings(String(u"Settings"), String(), String(u"Version"), String(u"2"));
  settings.TopTag()->NestTag(String(u"Server"), String(u"example.org"), String(u"port"), String(u"8080"));
  settings.TopTag()->NestTag(String(u"Greeting"), String(u"Grüße, 世界"));
  *settings.TopTag()->NestTag(String(u"Retries")) << 3;

  std::printf("-- written --\n%s", settings.GetText().ToUtf8().c_str());
  auto path = std::filesystem::temp_directory_path() / "qorxmlu-settings.xml";
  if (!Report(settings.Write(String(path.u16string())), "Write")) return 1;

  XML loaded;
  if (!Report(loaded.ReadFile(String(path.u16string())), "ReadFile")) return 1;
  int version = 0;
  if (!Report(loaded.CheckVersion(String(u"Settings demo"), String(), version), "CheckVersion")) return 1;
  XMLTag* retries = loaded.TopTag()->FindNestedTag(String(u"Retries"));
  int count = 0;
  if (retries) *retries >> count;
  XMLTag* host = loaded.TopTag()->FindNestedTag(String(u"Server"));
  std::printf("-- read back --\nversion %d, %zu tags, server %s port %s, retries %d\n", version,
              loaded.TopTag()->NoOfNestedTags(), host ? host->GetValue().ToUtf8().c_str() : "?",
              host && host->NoOfAttributes() ? host->GetAttrVal(0).ToUtf8().c_str() : "?", count);

  XML::SetAppVersion(1); // an older application meets the same file
  ErrorInfo* refused = loaded.CheckVersion(String(u"Settings demo"), String(), version);
  std::printf("-- as version 1 of the application --\n%s\n",
              refused ? refused->FullText().ToUtf8().c_str() : "accepted (unexpected)");
  bool wasRefused = refused != nullptr;
  delete refused;
  std::filesystem::remove(path);
  return wasRefused ? 0 : 1;
}
