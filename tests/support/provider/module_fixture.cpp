// The fixture's parts that need no template.

#include "module_fixture.h"

#include <algorithm>
#include <stdexcept>

#include "child.h"
#include "folder.h"

namespace NV::test {

namespace {

std::string fixtureFile(const std::string& name)
{
    return readFile(programFolder().parent_path() / "fixtures" / name);
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

Bytes certificateWithSerial(const std::string& name, uint32_t serial)
{
    Bytes der = certificateDer(name);
    // Version 3, then the INTEGER of the serial number.
    const Bytes before{0xA0, 0x03, 0x02, 0x01, 0x02, 0x02};
    const auto found = std::search(der.begin(), der.end(), before.begin(), before.end());
    const auto headSize = static_cast<ptrdiff_t>(before.size());
    if (found == der.end() || found[headSize] < 8)
        throw std::runtime_error("no long serial number in " + name);
    const uint32_t words[] = {static_cast<uint32_t>(GetTickCount64() ^ GetCurrentProcessId()),
                              serial};
    auto out = found + headSize + 2;
    for (const uint32_t word : words) {
        for (int shift = 0; shift < 24; shift += 8)
            *out++ = static_cast<unsigned char>(word >> shift);
    }
    return der;
}

Bytes someBytes(size_t length)
{
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(0xA0 + i);
    return bytes;
}

std::string messages(const LogLines& lines, std::string_view level)
{
    std::string text;
    for (const LogLine& line : ofLevel(lines, level))
        text += masked(line.message) + "\n";
    return text;
}

std::string levelsAndMessages(const LogLines& lines)
{
    std::string text;
    for (const LogLine& line : lines)
        text += line.level + " " + masked(line.message) + "\n";
    return text;
}

void ModuleTest::start()
{
    module.emplace();
    provider.emplace(*module);
    forget();
}

void ModuleTest::forget()
{
    token.clearCalls();
    takeLines();
}

LogLines ModuleTest::takeLines()
{
    LogLines lines = withoutBanner(profile.log());
    const size_t all = lines.size();
    lines.erase(lines.begin(), lines.begin() + static_cast<LogLines::difference_type>(taken_));
    taken_ = all;
    return lines;
}

ModuleTest::ModuleTest(Behaviour behaviour)
{
    if (behaviour == Behaviour::modern)
        profile.writeModernConfigFor(ScriptedToken::widePath());
    else
        profile.writeConfigFor(ScriptedToken::widePath());
}

ServedKeysTest::ServedKeysTest(bool withLog, Behaviour behaviour) : ModuleTest(behaviour)
{
    if (!withLog)
        profile.writeConfig(std::string(behaviour == Behaviour::modern ? "mode=modern\n" : "") +
                            "logLevel=ERROR\nlogTypes=FILE\nlogStore=\nlogRotate=7\np11File=" +
                            narrowPath(ScriptedToken::widePath()) + "\n");
    token.addCertificate(Bytes{0x01, 0xAB}, certificateDer("rsa2048"));
    token.addRsaKeyPair({0x01, 0xAB}, 2048);
    token.addCertificate(Bytes{0x02, 0x56}, certificateDer("p256"));
    token.addEcKeyPair({0x02, 0x56}, 32);
    start();
    rsa = openKey(L"01AB");
    ec = openKey(L"0256");
    forget();
}

bool ServedKeysTest::Output::onlyWritten(size_t count, size_t offset) const
{
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    const auto end = begin + static_cast<std::ptrdiff_t>(count);
    const auto untouchedByte = [](unsigned char byte) { return byte == 0xEE; };
    return std::all_of(bytes.begin(), begin, untouchedByte) &&
           std::all_of(end, bytes.end(), untouchedByte) &&
           !(count != 0 && std::all_of(begin, end, untouchedByte));
}

Bytes ServedKeysTest::encryptPkcs1(Bytes input)
{
    Bytes output(256);
    DWORD length = 0;
    EXPECT_EQ(table()->Encrypt(handle(), rsa, input.data(), static_cast<DWORD>(input.size()),
                               nullptr, output.data(), 256, &length, BCRYPT_PAD_PKCS1),
              ERROR_SUCCESS);
    output.resize(length);
    return output;
}

}  // namespace NV::test
