// A fake web service for the query and trace tests, on 127.0.0.1.
//
// Every request is a POST of a multipart form; the object path picks the answer:
//   /answer              the value of the form field "reply", as it came ("" if there is none)
//   /echo                the request body, as it came
//   /fields              a reply document: Success 0, then one Field tag per part in body order,
//                        with the part's name (and file name) as attributes and its content as value
//   /order               a reply document: Success 0, Order n (this service's nth /order request),
//                        Caller with the value of the field "caller"
//   /slow                waits the milliseconds of the field "ms" (cut short when the service
//                        stops), then answers as /answer
//   /php/SafeTrace.php   keeps the body as the last upload and answers a reply document
//   /uploads             the number of uploads so far, a line end, and the last upload's body
//
// Natively a test program starts the service itself. Under Wine, where no server library exists,
// the native qorxmlu_soap_service_host starts it and hands its address to the Windows test
// program in the environment variable QORXMLU_SOAP_SERVICE.
#pragma once

#include <memory>
#include <string>

namespace QOR::test {

struct SoapServiceAddresses {
  std::string service; // "127.0.0.1:<port>"
  std::string refused; // "127.0.0.1:<port>" where nothing listens

  // "service=<address>;refused=<address>"
  std::string Encode() const;
  static SoapServiceAddresses Decode(const std::string& text);
};

// Whatever keeps the service running.
class SoapServiceRun {
public:
  virtual ~SoapServiceRun() = default;
  virtual const SoapServiceAddresses& Addresses() const = 0;
};

// Starts the service (native builds only; elsewhere null).
std::unique_ptr<SoapServiceRun> StartSoapService();

// The service of this test run: from QORXMLU_SOAP_SERVICE if set, otherwise started here.
const SoapServiceAddresses& TheSoapService();

// True in a Windows program run by Wine.
bool RunningOnWine();

} // namespace QOR::test
