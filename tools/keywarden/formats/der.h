// Writing DER (X.690), the encoding of certificates and of CMS. Each function returns a whole element.

#pragma once

#include <windows.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "base/encoding.h"

namespace NV::tool {

// Any element: tag, length, content.
Bytes derElement(unsigned char tag, const Bytes& content);

Bytes derSequence(const std::vector<Bytes>& elements);
// A SET OF: the elements in the order of their encodings.
Bytes derSet(std::vector<Bytes> elements);

// [number], explicit or of a constructed type: 0xA0 and so on.
Bytes derContext(unsigned number, const Bytes& content);

// "1.2.840.113549.1.7.2": at least two numbers.
Bytes derOid(std::string_view oid);

Bytes derInteger(uint32_t number);
// The bytes with the most significant one first; not negative.
Bytes derInteger(const Bytes& number);
Bytes derOctets(const Bytes& content);
Bytes derNull();

// A time as CMS and X.509 write it: UTCTime up to 2049, GeneralizedTime from 2050 on.
Bytes derTime(const SYSTEMTIME& utc);

}  // namespace NV::tool
