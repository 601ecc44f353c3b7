#include <qorxmlu/http/HttpClientImpInterface.h>

namespace QOR {

HttpClientImpInterface::~HttpClientImpInterface() = default;

} // namespace QOR
