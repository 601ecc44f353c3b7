// One query to a web service: a URL, the caller's two identifiers, named text parameters in the
// order added, at most one file to upload, and the reply.
//
// A query is also the document that receives its reply: RunQuery posts the parameters as a
// multipart form and parses the reply into the query itself, to be read through XML and XMLTag.
// With a result file set, the raw reply goes to that file instead and the document stays as it
// was. A query holds no connection; each run is given the client to use. It has no lock and is
// used by one thread at a time. Two queries must not run at once on one client.
//
// Queries are not copied: copy construction and assignment throw a char* text.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/VArray.h>
#include <qorxmlu/xml/XML.h>

namespace QOR {

class HttpClient;

class QORXMLU_API SimpleSoap : public XML {
public:
  // A query to url (put behind the client's url prefix) with no parameters, no upload and no
  // result file. queryID and querySubID are only kept for the caller; they are never sent.
  SimpleSoap(String url, unsigned int queryID, String querySubID);
  // Always throws the char* "SimpleSoap copy ctor not supported".
  SimpleSoap(const SimpleSoap& source);
  // Always throws the char* "SimpleSoap op = not supported"; this query stays unchanged.
  SimpleSoap& operator=(const SimpleSoap& source);
  // Destroys the parameters and the document.
  ~SimpleSoap() override;

  // Appends a parameter. Empty names and repeated names are kept, in the order added.
  void AddParameter(String name, String value);
  // Sets the one file to upload, as the form field "userfile"; an empty path turns it off.
  void AddFileUploadParam(String path);
  // Sets the file that is to take the raw reply; empty parses the reply into the document.
  void SetHtmlResult(String path);

  // Posts the parameters and the upload on client (not null) and parses the reply into this
  // document, or saves it to the result file. Null on success; otherwise the error of the
  // request, of the reader or of the file, and the document stays as it was.
  [[nodiscard]] virtual ErrorInfo* RunQuery(HttpClient* client);

  // The URL as given to the constructor.
  String GetUrl() const;
  // The caller's two identifiers, as given to the constructor.
  unsigned int QueryID() const;
  String QuerySubID() const;
  // The path of the file to upload; empty for none.
  String FileUploadParam() const;
  // The parameter names and values themselves, in the order added; values[i] belongs to names[i].
  const VArray<String>& GetNames() const;
  const VArray<String>& GetValues() const;

private:
  unsigned int queryID;
  String querySubID;
  VArray<String> names;
  VArray<String> values;
  String url;
  String fileUploadParam;
  String htmlResult;
};

} // namespace QOR
