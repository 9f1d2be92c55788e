// Runs one of the portable paths that each record or call uses. scripts/instructions.sh counts the
// instructions. A count shows in seconds whether a path has become longer, also on a busy machine.
//   bench_hot_paths             prints the names of the paths, one on each line
//   bench_hot_paths NAME RUNS   runs one path that many times and prints nothing

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <sstream>
#include <string_view>

#include "base/encoding.h"
#include "base/text.h"
#include "config/config.h"
#include "config/config_values.h"
#include "keystore/keystore_blob.h"
#include "keystore/keystore_hash.h"
#include "logger/logger_record.h"
#include "logger/logger_rotation.h"
#include "measure.h"
#include "nvvtoken/nvvtoken_parameters.h"
#include "p11/p11text.h"

using HotPath = void (*)();

// callgrind collects from here to the return.
extern "C" void runHotPath(HotPath path, long runs);

extern "C" [[gnu::noinline]] void runHotPath(HotPath path, long runs)
{
    for (long i = 0; i < runs; ++i)
        path();
}

namespace NV::bench {

namespace {

// --- codecs ---

template <size_t Size>
const Bytes& someBytes()
{
    static const Bytes bytes = [] {
        Bytes all(Size);
        for (size_t i = 0; i < Size; ++i)
            all[i] = static_cast<unsigned char>(i * 37 + 5);
        return all;
    }();
    return bytes;
}

template <size_t Size>
void encodeHex()
{
    keep(hexEncode(someBytes<Size>()));
}

template <size_t Size>
void decodeHex()
{
    static const std::string text = hexEncode(someBytes<Size>());
    keep(hexDecode(text));
}

template <size_t Size>
void encodeBase64()
{
    keep(base64Encode(someBytes<Size>()));
}

template <size_t Size>
void decodeBase64()
{
    static const std::string text = base64Encode(someBytes<Size>());
    keep(base64Decode(text));
}

// --- the log ---

void format(const char* text, ...) NV_PRINTF(1, 2);

void format(const char* text, ...)
{
    static char buffer[65536];
    va_list arguments;  // NOLINT(cppcoreguidelines-init-variables): va_start does it
    va_start(arguments, text);
    keep(formatMessage(buffer, sizeof buffer, text, arguments));
    va_end(arguments);
}

void formatPlain()
{
    format("%.*s[%s:%d]:STATUS=0x%x, ELAPSED:%.3f(ms)", 17, "NV::Provider::init(int)",
           "nvvtoken.cpp", 87, 0x80090027U, 0.012);
}

void formatWide()
{
    format("%.*s[%s:%d]:ARG[%d]:pszKeyName=%s", 17, "NV::Provider::init(int)", "nvvtoken.cpp", 87,
           2, toUtf8(L"Signature key of caf\u00E9 \u20AC 5").c_str());
}

const LocalTime& someTime()
{
    // 2026-03-04 17:05:09.042
    static const LocalTime time = toLocalTime(
        std::chrono::system_clock::time_point(std::chrono::milliseconds(1772643909042)));
    return time;
}

void localTime()
{
    keep(toLocalTime(
        std::chrono::system_clock::time_point(std::chrono::milliseconds(1772643909042))));
}

void writeRecordLine()
{
    keep(recordLine(someTime(), "TRC", identity(4312, 7716),
                    "NV::Provider::init[nvvtoken.cpp:87]:STATUS=0x80090027, ELAPSED:0.012(ms)"));
}

void hashThreads()
{
    uint32_t sum = 0;
    for (uint32_t thread = 0; thread < 256; ++thread)
        sum += threadHash(thread * 4);
    keep(sum);
}

void writeBanner()
{
    static const LoggerSettings settings;
    keep(bannerLines(someTime(), "[04312,1a2b3c4d]", settings));
}

void findOutdated()
{
    static constexpr std::wstring_view names[] = {L"nvksprovider-20260304.log",
                                                  L"nvksprovider-20260303.log",
                                                  L"nvksprovider-20260225.log",
                                                  L"nvksprovider-20251231.log",
                                                  L"nvksprovider.log",
                                                  L"nvksprovider-2026030.log",
                                                  L"nvksprovider-20260304.txt",
                                                  L"other-20260304.log",
                                                  L"nvksprovider-2026o304.log",
                                                  L"nvksprovider-202603041.log",
                                                  L"readme",
                                                  L"nvksprovider-20240229.log"};
    const FileName configured = splitFileName(L"nvksprovider.log");
    int outdated = 0;
    for (const std::wstring_view name : names)
        outdated += isOutdated(name, configured, someTime().seconds, 7) ? 1 : 0;
    keep(outdated);
}

void nameFile()
{
    keep(datedFileName(splitFileName(L"nvksprovider.log"), someTime().calendar));
}

// --- PKCS#11 values as text ---

void nameReturnValues()
{
    for (const CK_RV value : {0x00U, 0xA0U, 0x150U, 0x191U, 0x200U, 0x140U})
        keep(returnValueText(value));
}

void nameMechanisms()
{
    for (const CK_MECHANISM_TYPE type : {0x01U, 0x0DU, 0x1041U, 0x1050U, 0x210AU, 0x402AU})
        keep(mechanismText(type));
}

void nameAttributes()
{
    for (const CK_ATTRIBUTE_TYPE type : {0x00U, 0x03U, 0x102U, 0x120U, 0x40000600U, 0x1000U})
        keep(attributeText(type));
}

void showAttributes()
{
    uint32_t objectClass = 3;
    static unsigned char id[20] = {};
    keep(toText(CK_ATTRIBUTE{0, &objectClass, sizeof objectClass}));
    keep(toText(CK_ATTRIBUTE{0x102, nullptr, sizeof id}));
}

// Text of a fixed width, padded with blanks.
template <size_t Size>
void fill(unsigned char (&field)[Size], std::string_view text)
{
    std::memset(field, ' ', Size);
    std::memcpy(field, text.data(), text.size());
}

void showInfo()
{
    CK_INFO info{};
    info.cryptokiVersion = {2, 40};
    fill(info.manufacturerID, "Some manufacturer");
    fill(info.libraryDescription, "A PKCS#11 library");
    keep(toText(info));
}

void showSlotInfo()
{
    CK_SLOT_INFO info{};
    fill(info.slotDescription, "A reader with a slot");
    fill(info.manufacturerID, "Some manufacturer");
    info.flags = 5;
    keep(toText(info));
}

void showTokenInfo()
{
    CK_TOKEN_INFO info{};
    fill(info.label, "Signature card");
    fill(info.manufacturerID, "Some manufacturer");
    fill(info.model, "Model 1");
    fill(info.serialNumber, "0123456789");
    fill(info.utcTime, "");
    info.flags = 0x40D;
    info.ulMaxPinLen = 12;
    keep(toText(info));
}

void showSessionInfo()
{
    keep(toText(CK_SESSION_INFO{1, 3, 6, 0}));
}

// --- parsers ---

void parseSettings()
{
    std::istringstream text("# KeyWarden\n"
                            "library = C:\\Program Files\\Token\\pkcs11.dll\n"
                            "log.level = debug\n"
                            "log.type = console, file\n"
                            "log.rotate = 14\n"
                            "log.store = ~/.norvanta-keywarden/logs\n"
                            "\n"
                            "slot=2\n");
    Settings settings;
    readSettings(text, settings);
    keep(settings);
}

void parseLogValues()
{
    for (const char* level : {"trace", "SEVERE", "", "unknown"})
        keep(parseLogLevel(level));
    keep(parseLogTypes("console, FILE,other"));
    keep(parseLogRotate("14", 7));
    keep(expandLogStore("~/.norvanta-keywarden/logs", "C:\\Users\\somebody"));
}

void readPublicEccBlob()
{
    static const Bytes blob = [] {
        Bytes all = hexDecode("45434B3120000000");
        all.insert(all.end(), someBytes<64>().begin(), someBytes<64>().end());
        return all;
    }();
    const EccBlob key = readEccBlob(blob);
    const Bytes point = uncompressedPoint(*key.coordinates);
    keep(splitPoint(point, key.coordinateSize));
}

void readLegacyRsaBlob()
{
    static const Bytes legacy = [] {
        // 2048 bits, exponent 65537.
        Bytes all = hexDecode("0602000000A40000525341310008000001000100");
        all.insert(all.end(), someBytes<256>().begin(), someBytes<256>().end());
        return all;
    }();
    keep(rsaPublicKeyBlob(*readLegacyRsaHead(legacy), legacy));
}

void readDerivationParameters()
{
    static constexpr wchar_t name[] = L"SHA256";
    const auto buffer = [](uint32_t type, size_t size, const void* bytes) {
        return ParameterBuffer{static_cast<uint32_t>(size), type, bytes};
    };
    const ParameterBuffer buffers[] = {
        buffer(bufferTypeHashAlgorithm, sizeof name, name),
        buffer(bufferTypeHmacKey, 32, someBytes<32>().data()),
        buffer(bufferTypePrepend, 16, someBytes<32>().data()),
        buffer(bufferTypeAppend, 16, someBytes<32>().data() + 16),
    };
    DerivationParameters parameters;
    for (const ParameterBuffer& each : buffers)
        takeParameter(parameterKind(each, true), each, parameters);
    keep(findHashAlgorithm(parameters.hashName.c_str()));
}

struct NamedPath {
    std::string_view name;
    HotPath path;
};

constexpr NamedPath paths[] = {
    {"hexEncode-32", encodeHex<32>},
    {"hexEncode-1024", encodeHex<1024>},
    {"hexDecode-32", decodeHex<32>},
    {"hexDecode-1024", decodeHex<1024>},
    {"base64Encode-32", encodeBase64<32>},
    {"base64Encode-1024", encodeBase64<1024>},
    {"base64Decode-32", decodeBase64<32>},
    {"base64Decode-1024", decodeBase64<1024>},
    {"formatMessage-plain", formatPlain},
    {"formatMessage-wide", formatWide},
    {"toLocalTime", localTime},
    {"recordLine", writeRecordLine},
    {"threadHash-256", hashThreads},
    {"bannerLines", writeBanner},
    {"isOutdated-12", findOutdated},
    {"datedFileName", nameFile},
    {"returnValueText-6", nameReturnValues},
    {"mechanismText-6", nameMechanisms},
    {"attributeText-6", nameAttributes},
    {"toText-attribute-2", showAttributes},
    {"toText-info", showInfo},
    {"toText-slot", showSlotInfo},
    {"toText-token", showTokenInfo},
    {"toText-session", showSessionInfo},
    {"readSettings", parseSettings},
    {"logValues", parseLogValues},
    {"eccBlob", readPublicEccBlob},
    {"rsaBlob", readLegacyRsaBlob},
    {"derivationParameters", readDerivationParameters},
};

int listPaths()
{
    for (const NamedPath& each : paths)
        std::puts(each.name.data());
    return 0;
}

int takePath(std::string_view name, long runs)
{
    for (const NamedPath& each : paths) {
        if (each.name == name) {
            // The first run is not counted: it includes loading and making the input.
            each.path();
            runHotPath(each.path, runs);
            return 0;
        }
    }
    std::fprintf(stderr, "bench_hot_paths: no path has this name\n");
    return 2;
}

}  // namespace

}  // namespace NV::bench

int main(int argc, char** argv)
{
    if (argc != 1 && argc != 3) {
        std::fprintf(stderr, "usage: %s [NAME RUNS]\n", argv[0]);
        return 2;
    }
    try {
        return argc == 1 ? NV::bench::listPaths()
                         : NV::bench::takePath(argv[1], std::strtol(argv[2], nullptr, 10));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
}
