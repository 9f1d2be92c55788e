// The base class of the objects that represent something on the token: keys and certificates.

#pragma once

namespace NV {

class P11Object {
public:
    P11Object() = default;
    P11Object(const P11Object&) = default;
    P11Object& operator=(const P11Object&) = default;
    virtual ~P11Object() = default;
};

}  // namespace NV
