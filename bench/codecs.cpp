// Compares the codecs of encoding.h with OpenSSL's. Ours allocate the text or the bytes that they
// return. EVP_EncodeBlock and EVP_DecodeBlock write to an existing buffer, and nothing is added to
// their time. OpenSSL's hexadecimal functions allocate as ours do, and their result is freed.

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>

#include "base/encoding.h"
#include "results.h"

namespace NV::bench {

namespace {

struct OpensslFree {
    void operator()(void* block) const { OPENSSL_free(block); }
};

template <typename T>
using FromOpenssl = std::unique_ptr<T, OpensslFree>;

Bytes someBytes(size_t size)
{
    std::mt19937 random(20260304);  // NOLINT(cert-msc51-cpp): the same bytes in every run
    Bytes bytes(size);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

// Both must give the same result; otherwise the times mean nothing.
void expectSame(bool same, const char* what)
{
    if (!same)
        throw std::runtime_error(std::string("other bytes than OpenSSL's: ") + what);
}

class Codecs {
public:
    Codecs(Results& results, const Plan& plan, size_t size)
        : results_(results), plan_(plan), bytes_(someBytes(size)), hex_(hexEncode(bytes_)),
          base64_(base64Encode(bytes_))
    {
    }

    void run()
    {
        encodeHex();
        decodeHex();
        encodeBase64();
        decodeBase64();
    }

private:
    template <typename Ours, typename Theirs>
    void row(const char* name, const char* against, Ours ours, Theirs theirs)
    {
        const auto size = static_cast<double>(bytes_.size());
        results_.speed({"codecs", name, against, size},
                       compare(repeated(ours), repeated(theirs), plan_), atLeast(1));
    }

    // OpenSSL's function writes "AA:BB" and has no other form that allocates.
    void encodeHex()
    {
        const auto theirs = [this] {
            return FromOpenssl<char>(
                OPENSSL_buf2hexstr(bytes_.data(), static_cast<long>(bytes_.size())));
        };
        std::string plain = theirs().get();
        std::erase(plain, ':');
        expectSame(plain == hex_, "hexEncode");
        row(
            "hexEncode", "OPENSSL_buf2hexstr", [this] { keep(hexEncode(bytes_)); },
            [&] { keep(theirs()); });
    }

    // Without separators, which OpenSSL's function reads faster.
    void decodeHex()
    {
        const auto theirs = [this] {
            long length = 0;
            return FromOpenssl<unsigned char>(OPENSSL_hexstr2buf(hex_.c_str(), &length));
        };
        expectSame(std::memcmp(theirs().get(), hexDecode(hex_).data(), bytes_.size()) == 0,
                   "hexDecode");
        row(
            "hexDecode", "OPENSSL_hexstr2buf", [this] { keep(hexDecode(hex_)); },
            [&] { keep(theirs()); });
    }

    void encodeBase64()
    {
        Bytes text(base64_.size() + 1);
        const auto theirs = [&] {
            return EVP_EncodeBlock(text.data(), bytes_.data(), static_cast<int>(bytes_.size()));
        };
        expectSame(static_cast<size_t>(theirs()) == base64_.size() &&
                       std::memcmp(text.data(), base64_.c_str(), text.size()) == 0,
                   "base64Encode");
        row(
            "base64Encode", "EVP_EncodeBlock", [this] { keep(base64Encode(bytes_)); },
            [&] { keep(theirs()); });
    }

    // OpenSSL's function counts the padding as bytes, too.
    void decodeBase64()
    {
        Bytes bytes(base64_.size() / 4 * 3);
        const Bytes text(base64_.begin(), base64_.end());
        const auto theirs = [&] {
            return EVP_DecodeBlock(bytes.data(), text.data(), static_cast<int>(text.size()));
        };
        expectSame(static_cast<size_t>(theirs()) == bytes.size() &&
                       std::memcmp(bytes.data(), bytes_.data(), bytes_.size()) == 0 &&
                       base64Decode(base64_) == bytes_,
                   "base64Decode");
        row(
            "base64Decode", "EVP_DecodeBlock", [this] { keep(base64Decode(base64_)); },
            [&] { keep(theirs()); });
    }

    Results& results_;
    const Plan& plan_;
    Bytes bytes_;
    std::string hex_;
    std::string base64_;
};

void benchmark(Results& results, const Plan& plan)
{
    for (const size_t size : {size_t{32}, size_t{1024}, size_t{1024} * 1024})
        Codecs(results, plan, size).run();
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    return NV::bench::runBenchmark(argc, argv, NV::bench::benchmark);
}
