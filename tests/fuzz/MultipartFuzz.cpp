// libFuzzer target for the request body builder: random fields and an optional file, the body
// parsed back by the tests' own multipart/form-data parser (RFC 2046 framing, RFC 7578 headers)
// and held against what went in.
//
// Nothing in the body is escaped, so a name with a quote or a line end, or a value that holds
// the boundary, makes a body that no parser can take apart; such forms are only built, not
// parsed.
#include <qorxmlu/http/HttpClient.h>

#include <fuzzer/FuzzedDataProvider.h>

#include "FormParts.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace QOR;

const std::string boundary = "gc0p4Jq0M2Yt08jU534c0p";

using Part = test::FormPart;

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

const std::filesystem::path& Folder() {
  static const std::filesystem::path folder = [] {
    auto path = std::filesystem::temp_directory_path() /
                ("qorxmlu-fuzz-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(path / "sub dir");
    return path;
  }();
  return folder;
}

// A name, a value or a file's bytes; often empty, sometimes long.
std::string Piece(FuzzedDataProvider& input) { return input.ConsumeRandomLengthString(64); }

bool Parsable(const std::string& name) { return name.find_first_of("\"\r\n") == std::string::npos; }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  HttpClient client(u"fuzz", u"example.test", false, 5, 5);

  std::vector<Part> expected;
  bool parsable = true;
  const int fields = input.ConsumeIntegralInRange(0, 6);
  for (int i = 0; i < fields; ++i) {
    // Through String and back, as the builder sees the text.
    String name = String::FromUtf8(Piece(input)), value = String::FromUtf8(Piece(input));
    client.AddFormField(name, value);
    if (value.IsEmpty()) continue;
    expected.push_back(Part{name.ToUtf8(), std::nullopt, "text/plain; charset=utf-8", "8bit", value.ToUtf8()});
    parsable = parsable && Parsable(expected.back().name) && expected.back().content.find(boundary) == std::string::npos;
  }

  std::filesystem::path file;
  if (input.ConsumeBool()) {
    static const char* const names[] = {"a.bin", "sub dir/b.txt", "sub dir/\xc3\xa4 \xe2\x82\xac.dat", "noext"};
    file = Folder() / std::filesystem::u8path(names[input.ConsumeIntegralInRange(0, 3)]);
    String param = String::FromUtf8(Piece(input));
    std::string bytes = input.ConsumeRemainingBytesAsString();
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
    client.SetUploadFile(String(file.u16string()), param);
    expected.push_back(Part{param.ToUtf8(), String(file.filename().u16string()).ToUtf8(), "application/base64", "Base64", bytes});
    parsable = parsable && Parsable(expected.back().name) && bytes.find(boundary) == std::string::npos;
  }

  const char* buffer = nullptr;
  std::size_t length = 0;
  if (ErrorInfo* error = client.GetRequestBuffer(String::FromUtf8(boundary), buffer, length)) {
    delete error;
    Fail("the body of a readable file failed");
  }
  const std::string body(buffer, length);
  delete[] buffer;
  if (!body.ends_with("\r\n--" + boundary + "--")) Fail("the body does not end with the closing delimiter");
  if (parsable) {
    auto parts = test::ParseForm(body, boundary);
    if (!parts) Fail("the body does not parse");
    if (*parts != expected) Fail("the parts differ from the form");
  }
  // The form is consumed: the next body is the empty form's.
  ErrorInfo* error = client.GetRequestBuffer(String::FromUtf8(boundary), buffer, length);
  if (error || std::string(buffer, length) != "\r\n--" + boundary + "--") Fail("the form was not consumed");
  delete[] buffer;
  if (!file.empty()) std::filesystem::remove(file);
  return 0;
}
