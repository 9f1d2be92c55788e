// Owners of OpenSSL's objects: std::unique_ptr<X509, Freer<&X509_free>>.

#pragma once

namespace NV::stand_in {

template <auto release>
struct Freer {
    template <typename T>
    void operator()(T* object) const
    {
        release(object);
    }
};

}  // namespace NV::stand_in
