// The provider's operations on keys: opening, listing, import and export.

#include "nvvtoken/nvvtoken.h"

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/scope_exit.h"
#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_export.h"
#include "keystore/keystore_properties.h"
#include "logger/trace.h"
#include "nvvtoken/nvvtoken_memory.h"

namespace NV {

namespace {

constexpr const wchar_t* exportBlobTypes[] = {BCRYPT_PUBLIC_KEY_BLOB, LEGACY_RSAPUBLIC_BLOB,
                                              BCRYPT_RSAPUBLIC_BLOB, BCRYPT_ECCPUBLIC_BLOB};
// A record of EnumKeys, with its names if they are in blocks of their own. Without memory, the record is
// null.
struct KeyRecord {
    HeapBlock<wchar_t> name;
    HeapBlock<wchar_t> algorithm;
    HeapBlock<NCryptKeyName> record;

    NCryptKeyName* release()
    {
        static_cast<void>(name.release());
        static_cast<void>(algorithm.release());
        return record.release();
    }
};

// Compat: FreeBuffer releases the record, but not its names.
KeyRecord recordBesideNames(const P11KeyObject& key)
{
    KeyRecord made;
    made.name = copyToHeap(key.keyId().c_str());
    made.algorithm = copyToHeap(key.algorithmOid().c_str());
    if (made.name != nullptr && made.algorithm != nullptr)
        made.record = allocateOnHeap<NCryptKeyName>();
    if (made.record != nullptr)
        *made.record = {made.name.get(), made.algorithm.get(), 0, 0};
    return made;
}

KeyRecord recordWithNames(const P11KeyObject& key)
{
    const std::wstring algorithm = algorithmName(key);
    auto record = allocateWithTexts<NCryptKeyName>(1, key.keyId().size() + algorithm.size() + 2);
    if (record == nullptr)
        return {};
    TextsBehind names(record.get() + 1);
    wchar_t* const name = names.add(key.keyId());
    *record = {name, names.add(algorithm), 0, 0};
    return {nullptr, nullptr, std::move(record)};
}

constexpr const wchar_t* importBlobTypes[] = {BCRYPT_RSAPUBLIC_BLOB, BCRYPT_ECCPUBLIC_BLOB};

bool isOneOf(std::span<const wchar_t* const> names, std::wstring_view name)
{
    return std::ranges::any_of(names, [name](const wchar_t* entry) { return name == entry; });
}

}  // namespace

P11KeyObject* Provider::logFound(const Site& site, P11KeyObject* key)
{
    // Compat: the line shows the null pointer and not the handle that was looked up.
    if (key == nullptr)
        NV_UNDER(ERR, site, "Not Found Key = %p", static_cast<const void*>(key));
    else
        NV_UNDER(TRC, site, "Found Key = %p", static_cast<const void*>(key));
    return key;
}

SECURITY_STATUS Provider::OpenKey(NCRYPT_KEY_HANDLE* phKey, LPCWSTR pszKeyName,
                                  DWORD dwLegacyKeySpec, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(pointer("phKey", phKey), text("pszKeyName", pszKeyName),
                    flagBits("dwLegacyKeySpec", dwLegacyKeySpec), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (phKey == nullptr)
        NV_ERR("Invalid Argument: phKey is null");
    if (pszKeyName == nullptr)
        NV_ERR("Invalid Argument: pszKeyName is null");
    if (phKey == nullptr || pszKeyName == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    if ((dwFlags & NCRYPT_SILENT_FLAG) != 0)
        NV_DBG("Enabled Silent Option");
    if ((dwLegacyKeySpec & AT_SIGNATURE) != 0)
        NV_DBG("Enabled AT_SIGNATURE Option");
    if ((dwLegacyKeySpec & AT_KEYEXCHANGE) != 0)
        NV_DBG("Enabled AT_KEYEXCHANGE Option");

    const NCRYPT_KEY_HANDLE handle = keyStore_.open(pszKeyName);
    if (handle == 0) {
        NV_ERR("Failed to open key");
        return trace.end(mode().forgetsUnknownNames() ? NTE_BAD_KEYSET : NTE_INVALID_HANDLE);
    }
    Undo discard([&] { keyStore_.discard(handle); });
    NV_TRC("Success to open the key (%p)", asPointer(handle));
    *phKey = handle;
    discard.commit();
    return trace.end(ERROR_SUCCESS);
}

SECURITY_STATUS Provider::FreeKey(NCRYPT_KEY_HANDLE hKey)
{
    Trace trace(NV_HERE);
    trace.arguments(pointer("hKey", hKey));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (hKey == 0)
        return trace.end(NTE_INVALID_HANDLE);
    // Compat: the log shows the low 32 bits of the handle.
    const auto printed = static_cast<unsigned>(hKey);
    if (!keyStore_.close(hKey)) {
        NV_ERR("Failed to free the key(0x%0x)", printed);
        return trace.end(NTE_INVALID_HANDLE);
    }
    NV_TRC("Success to free the key(0x%0x)", printed);
    return trace.end(ERROR_SUCCESS);
}

SECURITY_STATUS Provider::EnumKeys(LPCWSTR pszScope, NCryptKeyName** ppKeyName, PVOID* ppEnumState,
                                   DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(text("pszScope", pszScope), pointer("ppKeyName", ppKeyName),
                    pointer("ppEnumState", ppEnumState), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    if (ppKeyName == nullptr || ppEnumState == nullptr)
        return trace.end(NTE_INVALID_PARAMETER);
    // The state is one index. The caller gets a new one only on success.
    auto* state = static_cast<uint32_t*>(*ppEnumState);
    HeapBlock<uint32_t> created;
    if (state == nullptr) {
        created = allocateOnHeap<uint32_t>();
        if (created == nullptr)
            return trace.end(NTE_NO_MEMORY);
        state = created.get();
        *state = 0;
        // Compat: spelled like this, because people search the log for this text.
        NV_TRC("Aloocate index %p for enumulation", static_cast<const void*>(state));
    } else {
        NV_TRC("The given index is %d", static_cast<int>(*state));
    }
    const uint32_t index = *state;
    const size_t count = keyStore_.keyCount();
    NV_TRC("Enum keys[%d/%d]", static_cast<int>(index), static_cast<int>(count));
    if (index >= count) {
        NV_DBG("The end of the enumeration has been reached");
        return trace.end(NTE_NO_MORE_ITEMS);
    }
    const P11KeyObject* key = keyStore_.keyAt(index);
    if (key == nullptr) {
        NV_ERR("Not Found key");
        return trace.end(NTE_NOT_FOUND);
    }
    KeyRecord record =
        mode().listsAlgorithmNames() ? recordWithNames(*key) : recordBesideNames(*key);
    if (record.record == nullptr)
        return trace.end(NTE_NO_MEMORY);
    NV_TRC("Output the list of keys = %d", 1);
    *state = index + 1;
    *ppKeyName = record.release();
    *ppEnumState = state;
    static_cast<void>(created.release());
    return trace.end(ERROR_SUCCESS);
}

SECURITY_STATUS Provider::ImportKey(NCRYPT_KEY_HANDLE hImportKey, LPCWSTR pszBlobType,
                                    NCryptBufferDesc* pParameterList, NCRYPT_KEY_HANDLE* phKey,
                                    PBYTE pbData, DWORD cbData, DWORD dwFlags)
{
    Trace trace(NV_HERE);
    trace.arguments(pointer("hImportKey", hImportKey), text("pszBlobType", pszBlobType),
                    pointer("pParameterList", pParameterList), pointer("phKey", phKey),
                    pointer("pbData", pbData), number("cbData", cbData),
                    flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    SECURITY_STATUS status = ERROR_SUCCESS;
    if (hImportKey != 0)
        status = NTE_NOT_SUPPORTED;
    if (pParameterList != nullptr)
        NV_DBG("pParameterList is non-empty!!");
    if (pszBlobType == nullptr || phKey == nullptr || pbData == nullptr || cbData == 0)
        status = NTE_INVALID_PARAMETER;
    if (pszBlobType != nullptr && !isOneOf(importBlobTypes, pszBlobType)) {
        NV_ERR("Unsupported BLOB type=[%s] (only RSA/ECC_PUBLIC_BLOB supported)!!",
               printable(pszBlobType).c_str());
        status = NTE_NOT_SUPPORTED;
    }
    if (status != ERROR_SUCCESS)
        return trace.end(status);
    return trace.end((this->*importWays().import)(pszBlobType, {pbData, cbData}, *phKey));
}

SECURITY_STATUS Provider::importChecked(std::wstring_view blobType, std::span<const BYTE> blob,
                                        NCRYPT_KEY_HANDLE& key)
{
    return keyStore_.importPublicKey(blobType == BCRYPT_RSAPUBLIC_BLOB, blob, key);
}

// Compat: a blob that the store rejects gives a null handle and success.
SECURITY_STATUS Provider::importAsGiven(std::wstring_view, std::span<const BYTE> blob,
                                        NCRYPT_KEY_HANDLE& key)
{
    key = keyStore_.addEphemeralKey(blob.data(), static_cast<DWORD>(blob.size()));
    return ERROR_SUCCESS;
}

const Provider::ImportWays& Provider::importWays()
{
    // Compat: in classic, freeing an unknown secret succeeds.
    static constexpr ImportWays asGiven = {&Provider::importAsGiven, &Provider::givenPeer,
                                           ERROR_SUCCESS};
    static constexpr ImportWays checked = {&Provider::importChecked, &Provider::foundPeer,
                                           NTE_INVALID_HANDLE};
    return mode().checksImports() ? checked : asGiven;
}

SECURITY_STATUS Provider::ExportKey(NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE hExportKey,
                                    LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                    PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags)
{
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("hKey", hKey), pointer("hExportKey", hExportKey),
                    text("pszBlobType", pszBlobType), pointer("pParameterList", pParameterList),
                    pointer("pbOutput", pbOutput), number("cbOutput", cbOutput),
                    pointer("pcbResult", pcbResult), flagBits("dwFlags", dwFlags));
    const std::lock_guard guard(lock_);
    trace.startClock();

    SECURITY_STATUS status = ERROR_SUCCESS;
    if (hExportKey != 0)
        status = NTE_NOT_SUPPORTED;
    else if (hKey == 0)
        status = NTE_INVALID_PARAMETER;
    if (pszBlobType == nullptr) {
        status = NTE_INVALID_PARAMETER;
    } else if (!isOneOf(exportBlobTypes, pszBlobType)) {
        NV_ERR("Not Supported BlobType = %s", printable(pszBlobType).c_str());
        status = NTE_NOT_SUPPORTED;
    }
    if (pcbResult == nullptr)
        status = NTE_INVALID_PARAMETER;
    if (status == ERROR_SUCCESS)
        status = exportPublicKey(here, hKey, pszBlobType, pbOutput, cbOutput, pcbResult);
    return trace.end(status);
}

SECURITY_STATUS Provider::exportPublicKey(const Site& site, NCRYPT_KEY_HANDLE hKey,
                                          LPCWSTR pszBlobType, PBYTE pbOutput, DWORD cbOutput,
                                          DWORD* pcbResult)
{
    const P11KeyObject* key = logFound(site, keyStore_.findOpenedOrImported(hKey));
    if (key == nullptr)
        return NTE_INVALID_HANDLE;
    const size_t publicKeySize = base64Decode(key->publicKey()).size();
    NV_UNDER(TRC, site, "Retrieved public key = %d (bytes)", static_cast<int>(publicKeySize));
    if (publicKeySize == 0)
        return NTE_INTERNAL_ERROR;
    // Compat: every blob type gives the blob of the key's own type.
    const auto& [status, blob] =
        mode().exportsByBlobType() ? exportByType(*key, pszBlobType) : exportOwnBlob(*key);
    NV_UNDER(TRC, site, "Retrieved public key blob = %d (bytes)", static_cast<int>(blob.size()));
    if (status == NTE_NOT_SUPPORTED)
        NV_UNDER(ERR, site, "Not Supported BlobType = %s", printable(pszBlobType).c_str());
    if (status != ERROR_SUCCESS)
        return status;
    *pcbResult = static_cast<DWORD>(blob.size());
    if (pbOutput == nullptr)
        return ERROR_SUCCESS;
    if (blob.size() > cbOutput) {
        // Compat: the line is no error, and in classic the status is not NTE_BUFFER_TOO_SMALL.
        NV_UNDER(TRC, site, "The allocated buffer length is too short");
        return outputTooShort(static_cast<DWORD>(blob.size()), pcbResult, NTE_INVALID_PARAMETER);
    }
    NV_UNDER(TRC, site, "Copy the public key data");
    std::copy(blob.begin(), blob.end(), pbOutput);
    return ERROR_SUCCESS;
}

}  // namespace NV
