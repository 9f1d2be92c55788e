// The buffers of a derivation's parameter list: what each is, and what stays of it.

#include "nvvtoken/nvvtoken_parameters.h"

#include <gtest/gtest.h>

#include <cstring>

namespace NV {

namespace {

ParameterBuffer bufferOf(uint32_t type, const Bytes& bytes)
{
    return {static_cast<uint32_t>(bytes.size()), type, bytes.data()};
}

Bytes plain(const SecretBytes& secret)
{
    return {secret.begin(), secret.end()};
}

// The name that the first `size` bytes of the characters give, from an odd address.
std::wstring hashName(std::wstring_view characters, size_t size)
{
    Bytes bytes(1 + size);
    std::memcpy(bytes.data() + 1, characters.data(), size);
    DerivationParameters parameters;
    takeParameter(ParameterKind::hashName,
                  {static_cast<uint32_t>(size), bufferTypeHashAlgorithm, bytes.data() + 1},
                  parameters);
    return parameters.hashName;
}

TEST(ParameterKind, IsTheBuffersType)
{
    const Bytes byte{1};
    const auto kind = [&](uint32_t type, bool hmac) {
        return parameterKind(bufferOf(type, byte), hmac);
    };
    for (const bool hmac : {false, true}) {
        EXPECT_EQ(ParameterKind::hashName, kind(0, hmac));
        EXPECT_EQ(ParameterKind::prepend, kind(1, hmac));
        EXPECT_EQ(ParameterKind::append, kind(2, hmac));
        EXPECT_EQ(ParameterKind::unknown, kind(4, hmac));
        EXPECT_EQ(ParameterKind::unknown, kind(~0U, hmac));
    }
    EXPECT_EQ(ParameterKind::hmacKey, kind(3, true));
    EXPECT_EQ(ParameterKind::misplacedHmacKey, kind(3, false));
}

TEST(ParameterKind, ANullPointerWithASizeHasTheKindOfItsTypeAndChangesNothing)
{
    const ParameterBuffer unreadable{1, bufferTypePrepend, nullptr};
    EXPECT_EQ(ParameterKind::prepend, parameterKind(unreadable, false));
    EXPECT_FALSE(unreadable.readable());
    EXPECT_TRUE((ParameterBuffer{0, bufferTypePrepend, nullptr}).readable());
    DerivationParameters parameters;
    takeParameter(ParameterKind::prepend, unreadable, parameters);
    EXPECT_TRUE(parameters.prepend.empty());
}

TEST(DerivationParameters, ItemsAddUpAndTheLastKeyHolds)
{
    DerivationParameters parameters;
    const auto take = [&](uint32_t type, const Bytes& bytes) {
        const ParameterBuffer buffer = bufferOf(type, bytes);
        takeParameter(parameterKind(buffer, true), buffer, parameters);
    };
    take(bufferTypePrepend, {1, 2});
    take(bufferTypeAppend, {3});
    take(bufferTypeHmacKey, {4, 5});
    take(bufferTypePrepend, {6});
    take(bufferTypeHmacKey, {7});
    take(bufferTypeHmacKey, {});
    take(9, {8});
    EXPECT_EQ((Bytes{1, 2, 6}), plain(parameters.prepend));
    EXPECT_EQ((Bytes{3}), plain(parameters.append));
    EXPECT_EQ((Bytes{7}), plain(parameters.hmacKey));
    EXPECT_EQ(L"", parameters.hashName);
}

TEST(DerivationParameters, TheHashNameEndsAtItsTerminatorOrWithTheBuffer)
{
    constexpr size_t character = sizeof(wchar_t);
    constexpr std::wstring_view terminated(L"SHA256\0x", 8);
    EXPECT_EQ(L"SHA256", hashName(terminated, 8 * character));
    EXPECT_EQ(L"SHA256", hashName(terminated, 7 * character));
    EXPECT_EQ(L"SHA256", hashName(terminated, 6 * character));
    EXPECT_EQ(L"SHA25", hashName(terminated, 6 * character - 1));
    EXPECT_EQ(L"", hashName(terminated, character - 1));
}

TEST(DerivationParameters, AnAbsurdSizeOfAHashNameReadsAndTakesNoMore)
{
    const auto nameAt = [](const wchar_t* characters) {
        DerivationParameters parameters;
        takeParameter(ParameterKind::hashName, {0xFFFFFFFE, bufferTypeHashAlgorithm, characters},
                      parameters);
        return parameters.hashName;
    };
    EXPECT_EQ(L"SHA256", nameAt(L"SHA256"));
    const std::wstring endless(65, L'S');
    EXPECT_EQ(endless.substr(1), nameAt(endless.c_str()));
}

}  // namespace

}  // namespace NV
