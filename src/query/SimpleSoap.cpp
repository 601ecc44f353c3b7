#include <qorxmlu/query/SimpleSoap.h>

#include <qorxmlu/foundation/FormatableTextFile.h>
#include <qorxmlu/http/HttpClient.h>

namespace QOR {

namespace {

constexpr std::size_t listCapacityIncrease = 12;
// The form field of the upload; the web service knows it by this name.
const char16_t* const uploadFieldName = u"userfile";

[[noreturn]] void Refuse(const char* text) {
  // Thrown as a plain char*, so that catch (char*) and catch (const char*) both take it.
  throw const_cast<char*>(text);
}

} // namespace

SimpleSoap::SimpleSoap(String url, unsigned int queryID, String querySubID)
    : queryID(queryID), querySubID(std::move(querySubID)), url(std::move(url)) {
  names.SetCapacityIncrease(listCapacityIncrease);
  values.SetCapacityIncrease(listCapacityIncrease);
}

SimpleSoap::SimpleSoap(const SimpleSoap&) : XML(), queryID(0) { Refuse("SimpleSoap copy ctor not supported"); }

SimpleSoap& SimpleSoap::operator=(const SimpleSoap&) { Refuse("SimpleSoap op = not supported"); }

SimpleSoap::~SimpleSoap() = default;

void SimpleSoap::AddParameter(String name, String value) {
  names.Add(name);
  try {
    values.Add(value);
  } catch (...) {
    // Keep the two lists the same size.
    names.Truncate(names.Size() - 1);
    throw;
  }
}

void SimpleSoap::AddFileUploadParam(String path) { fileUploadParam = std::move(path); }

void SimpleSoap::SetHtmlResult(String path) { htmlResult = std::move(path); }

ErrorInfo* SimpleSoap::RunQuery(HttpClient* client) {
  client->ClearFormFields();
  for (std::size_t i = 0; i < names.Size(); ++i) client->AddFormField(names[i], values[i]);
  if (!fileUploadParam.IsEmpty()) client->SetUploadFile(fileUploadParam, uploadFieldName);

  String reply;
  // HttpClient's own Retrieve: a class derived from the client doesn't change how a query posts.
  if (ErrorInfo* error = client->HttpClient::Retrieve(url, reply)) return error;
  if (htmlResult.IsEmpty()) return ReadText(std::move(reply));

  FormatableTextFile file(htmlResult);
  if (ErrorInfo* error = file.Open(false)) return error;
  file.text << reply;
  ErrorInfo* flushed = file.FlushFile(true, BaseFile::UTF8);
  return SafeConcat(flushed, file.Close());
}

String SimpleSoap::GetUrl() const { return url; }

unsigned int SimpleSoap::QueryID() const { return queryID; }

String SimpleSoap::QuerySubID() const { return querySubID; }

String SimpleSoap::FileUploadParam() const { return fileUploadParam; }

const VArray<String>& SimpleSoap::GetNames() const { return names; }

const VArray<String>& SimpleSoap::GetValues() const { return values; }

} // namespace QOR
