// Everything the library exports, in namespace QOR.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/Types.h>
#include <qorxmlu/foundation/String.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/CritSection.h>
#include <qorxmlu/foundation/RefCountControl.h>
#include <qorxmlu/foundation/SVArray.h>
#include <qorxmlu/foundation/VArray.h>
#include <qorxmlu/foundation/Event.h>
#include <qorxmlu/foundation/CountingSemaphore.h>
#include <qorxmlu/foundation/Thread.h>
#include <qorxmlu/foundation/BaseFile.h>
#include <qorxmlu/foundation/ReadableFile.h>
#include <qorxmlu/foundation/LineParsableFile.h>
#include <qorxmlu/foundation/ParsableText.h>
#include <qorxmlu/foundation/WriteableFile.h>
#include <qorxmlu/foundation/FormatableTextFile.h>
#include <qorxmlu/foundation/Encoding.h>
#include <qorxmlu/foundation/Utility.h>
#include <qorxmlu/xml/XMLAttr.h>
#include <qorxmlu/xml/XMLTag.h>
#include <qorxmlu/xml/XML.h>
#include <qorxmlu/http/HttpClientBase.h>
#include <qorxmlu/http/HttpClientImpInterface.h>
#include <qorxmlu/http/HttpClient.h>
