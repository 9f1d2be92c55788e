// Which of the two behaviours the module has, and what that decides: one question for each row of
// docs/modes.md, which says what each behaviour does. Each question is asked in one or two places.

#pragma once

#include <cstdint>

namespace NV {

// Classic is the default. The line "mode=modern" of the configuration chooses modern.
enum class Behaviour : uint8_t { classic, modern };

class Mode {
public:
    constexpr Mode() = default;
    // silentPrompt: the line "silentPrompt=yes" of the configuration; only modern looks at it.
    explicit constexpr Mode(Behaviour behaviour, bool silentPrompt = false)
        : modern_(behaviour == Behaviour::modern), silentPrompt_(silentPrompt)
    {
    }

    constexpr Behaviour behaviour() const
    {
        return modern_ ? Behaviour::modern : Behaviour::classic;
    }

    // M1: the handles of a key share the values of its properties.
    constexpr bool sharesPropertyValues() const { return !modern_; }
    // M2: keys have the properties that today's clients read.
    constexpr bool hasMoreKeyProperties() const { return modern_; }
    // M3: an operation without a PIN fails.
    constexpr bool reportsMissingPin() const { return modern_; }
    // M4: the length of an output is told and checked before the user and the token are asked.
    constexpr bool tellsLengthsFirst() const { return modern_; }
    // M5: every hash name is checked, and has its DigestInfo.
    constexpr bool checksHashNames() const { return modern_; }
    // M6: verification is the counterpart of signing, and a bad signature has a status of its own.
    constexpr bool verifiesAsItSigns() const { return modern_; }
    // M7: the certificate's public key takes the place of one that the token does not give.
    constexpr bool usesCertificateKeys() const { return modern_; }
    // M8: an exported RSA key has its own exponent.
    constexpr bool exportsOwnExponent() const { return modern_; }
    // M9: an unknown key name leaves nothing behind.
    constexpr bool forgetsUnknownNames() const { return modern_; }
    // M10: EnumKeys gives algorithm names, in one block with the record.
    constexpr bool listsAlgorithmNames() const { return modern_; }
    // M11: the blob type decides what is exported.
    constexpr bool exportsByBlobType() const { return modern_; }
    // M12: a failed token call has a status that tells the reason.
    constexpr bool translatesTokenResults() const { return modern_; }
    // M13: the PKCS#11 library has a UTF-8 path, and its DLLs come from trusted folders.
    constexpr bool restrictsLibrarySearch() const { return modern_; }
    // M14: what another user of the PKCS#11 library has begun is left alone.
    constexpr bool sharesLibraryWithHost() const { return modern_; }
    // M15: the log contains no secrets.
    constexpr bool hidesSecrets() const { return modern_; }
    // M16: the curve of a key is told by its identifier, and not by its length.
    constexpr bool tellsCurvesByIdentifier() const { return modern_; }
    // M17: certificates of authorities without a key are no keys.
    constexpr bool filtersCertificates() const { return modern_; }
    // M18: the "HWND Handle" of a key owns its dialogs.
    constexpr bool keysOwnDialogs() const { return modern_; }
    // M19: the PIN dialog says which token, key and program.
    constexpr bool dialogNamesKey() const { return modern_; }
    // M21: logLevel gates every level, and each operation has one record of its end.
    constexpr bool logsByLevel() const { return modern_; }
    // M21: the first record at INFO in a process names program, user and version of the module.
    constexpr bool introducesProcess() const { return modern_; }
    // M22: the PKCS#11 library stays initialized while providers are open, and operations run side by
    // side.
    constexpr bool keepsLibraryInitialized() const { return modern_; }
    // M23: imported blobs are checked, RSA keys are imported, and every handle is looked up.
    constexpr bool checksImports() const { return modern_; }
    // M24: no exception leaves an entry point, and what would be one has a status.
    constexpr bool containsExceptions() const { return modern_; }
    // M25: a log that cannot be written fails no call.
    constexpr bool survivesLogFailures() const { return modern_; }
    // M26: NCRYPT_SILENT_FLAG keeps the dialog from appearing.
    constexpr bool obeysSilentFlag() const { return modern_ && !silentPrompt_; }
    // M27: a derived key may be shorter than the hash, and SHA1 is the default.
    constexpr bool shortensDerivedKeys() const { return modern_; }
    // M28: the algorithm lists name what the keys can do.
    constexpr bool listsKeyAlgorithms() const { return modern_; }
    // M29: common controls are initialized when the first dialog opens, not by the attach handler.
    constexpr bool initializesControlsLate() const { return modern_; }
    // M30: the module installs signal handlers in its host.
    constexpr bool handlesSignals() const { return !modern_; }

private:
    bool modern_ = false;
    bool silentPrompt_ = false;
};

// The behaviour of this process. Classic until the attach handler has read the configuration.
const Mode& mode();

// For the attach handler, before anything else of the module runs, and for tests.
void setMode(const Mode& mode);

}  // namespace NV
