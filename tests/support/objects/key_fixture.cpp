// The fixture's parts that need no template.

#include "key_fixture.h"

#include <cctype>
#include <stdexcept>

#include "child.h"
#include "folder.h"

namespace NV::test {

namespace {

std::string fixtureFile(const std::string& name)
{
    return readFile(programFolder().parent_path() / "fixtures" / name);
}

bool isRsa(Operation operation)
{
    return operation != Operation::ecSign && operation != Operation::ecVerify;
}

}  // namespace

Bytes certificateDer(const std::string& name)
{
    const std::string content = fixtureFile(name + ".der");
    return {content.begin(), content.end()};
}

Bytes certificateKey(const std::string& name)
{
    return hexDecode(fixtureFile(name + ".spki.hex"));
}

Bytes someBytes(size_t length)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(0xA0 + i);
    return bytes;
}

std::string headings(const LogLines& lines)
{
    std::string numbers;
    for (const LogLine& line : lines) {
        const std::string& text = line.message;
        if (text.size() > 1 && std::isdigit(static_cast<unsigned char>(text[0])) != 0 &&
            text[1] == ')')
            numbers += (numbers.empty() ? "" : " ") + text.substr(0, 1);
    }
    return numbers;
}

std::string messages(const LogLines& lines, std::string_view level)
{
    std::string text;
    for (const LogLine& line : ofLevel(lines, level))
        text += masked(line.message) + "\n";
    return text;
}

std::string functionOf(Operation operation)
{
    switch (operation) {
    case Operation::rsaSign:
        return "NV::P11RSAKeyObject::sign";
    case Operation::rsaVerify:
        return "NV::P11RSAKeyObject::verify";
    case Operation::rsaEncrypt:
        return "NV::P11RSAKeyObject::encrypt";
    case Operation::rsaDecrypt:
        return "NV::P11RSAKeyObject::decrypt";
    case Operation::ecSign:
        return "NV::P11ECKeyObject::sign";
    case Operation::ecVerify:
        return "NV::P11ECKeyObject::verify";
    }
    throw std::invalid_argument("operation");
}

KeyTest::KeyTest()
{
    rsaPair = token.addRsaKeyPair({0x01, 0xAB}, 2048);
    ecPair = token.addEcKeyPair({0x02, 0x56}, 32);
    if (!p11.loadModule(ScriptedToken::path()))
        throw std::runtime_error("the scripted token cannot be loaded");
    rsa = makeRsaKey();
    ec = makeEcKey();
    forget();
}

void KeyTest::forget()
{
    token.clearCalls();
    log.takeLines();
}

std::unique_ptr<P11RSAKeyObject> KeyTest::makeRsaKey(const wchar_t* name,
                                                     const std::string& fixture, uint32_t bits)
{
    auto key = std::make_unique<P11RSAKeyObject>();
    key->setSlotId(kSlot);
    key->setKeyId(name);
    key->setPublicKey(base64Encode(certificateKey(fixture)));
    key->setAlgorithmOid(L"1.2.840.113549.1.1.1");
    key->setKeyLength(bits);
    return key;
}

std::unique_ptr<P11ECKeyObject> KeyTest::makeEcKey(const wchar_t* name, const std::string& fixture,
                                                   uint32_t bits)
{
    auto key = std::make_unique<P11ECKeyObject>();
    key->setSlotId(kSlot);
    key->setKeyId(name);
    key->setPublicKey(base64Encode(certificateKey(fixture)));
    key->setAlgorithmOid(L"1.2.840.10045.2.1");
    key->setKeyLength(bits);
    return key;
}

KeyTest::Result KeyTest::run(Run what)
{
    P11KeyObject& key = isRsa(what.operation) ? *rsa : *ec;
    Result result;
    result.output.assign(what.room, 0xEE);
    BYTE* output = what.room != 0 ? result.output.data() : nullptr;
    const auto room = static_cast<DWORD>(what.room);
    const auto inputLength = static_cast<DWORD>(what.input.size());
    switch (what.operation) {
    case Operation::rsaSign:
    case Operation::ecSign:
        result.status = key.sign(&p11, what.padding, what.input.data(), inputLength, output, room,
                                 &result.length, what.flags, pin());
        break;
    case Operation::rsaVerify:
    case Operation::ecVerify:
        result.status =
            key.verify(&p11, what.padding, what.input.data(), inputLength, what.signature.data(),
                       static_cast<DWORD>(what.signature.size()), what.flags);
        break;
    case Operation::rsaEncrypt:
        result.status = key.encrypt(&p11, what.padding, what.input.data(), inputLength, output,
                                    room, &result.length, what.flags);
        break;
    case Operation::rsaDecrypt:
        result.status = key.decrypt(&p11, what.padding, what.input.data(), inputLength, output,
                                    room, &result.length, what.flags, pin());
        break;
    }
    return result;
}

}  // namespace NV::test
