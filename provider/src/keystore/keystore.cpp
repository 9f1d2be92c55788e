// Filing, cloning and deleting key objects.

#include "keystore/keystore.h"

#include <algorithm>
#include <mutex>
#include <span>

#include "base/curve.h"
#include "base/text.h"
#include "config/mode.h"
#include "keystore/keystore_blob.h"
#include "keystore/keystore_ec.h"
#include "keystore/keystore_properties.h"
#include "keystore/keystore_rsa.h"
#include "logger/operation.h"

namespace NV {

namespace {

NCRYPT_KEY_HANDLE handleOf(const P11KeyObject& key)
{
    return reinterpret_cast<NCRYPT_KEY_HANDLE>(&key);
}

// The uncompressed point as base64.
std::string pointText(const Site& site, std::span<const BYTE> coordinates)
{
    const Bytes point = uncompressedPoint(coordinates);
    const size_t half = coordinates.size() / 2;
    const auto size = static_cast<int>(half);
    std::string base64 = base64Encode(point);
    NV_UNDER(TRC, site, "X=[%s]", hexEncode(coordinates.data(), size).c_str());
    NV_UNDER(TRC, site, "Y=[%s]", hexEncode(coordinates.data() + half, size).c_str());
    NV_UNDER(TRC, site, "pubKey(Uncompressed)=[%s]", hexEncode(point).c_str());
    NV_UNDER(TRC, site, "pubKey(B64)=[%s]", base64.c_str());
    return base64;
}

}  // namespace

KeyStore::~KeyStore()
{
    // Compat: not the order of the members; the log shows the destructors.
    openedKeys_.clear();
    ephemeralKeys_.clear();
    managedKeys_.clear();
}

std::vector<KeyStore::ManagedKey>::iterator KeyStore::placeOf(const std::wstring& name)
{
    return std::ranges::lower_bound(managedKeys_, name, {}, &ManagedKey::name);
}

bool KeyStore::isFiledAt(std::vector<ManagedKey>::iterator place, const std::wstring& name) const
{
    return place != managedKeys_.end() && place->name == name;
}

const P11KeyObject* KeyStore::findFiled(const std::wstring& name)
{
    const auto place = placeOf(name);
    return isFiledAt(place, name) ? place->key.get() : nullptr;
}

// Compat: an unknown name leaves an entry without a key behind, which counts in enumerations.
const P11KeyObject* KeyStore::findOrInsert(const std::wstring& name)
{
    auto place = placeOf(name);
    if (!isFiledAt(place, name))
        place = managedKeys_.insert(place, {name, nullptr});
    return place->key.get();
}

bool KeyStore::addPublicKey(const P11Slot& slot, const std::wstring& id, const std::wstring& oid,
                            const std::string& base64, uint32_t length, const KeyOrigin& origin)
{
    const std::lock_guard guard(lock_);
    Trace trace(NV_HERE);
    trace.arguments(spaced(pointer("slot", &slot)), spaced(text("id", id.c_str())),
                    spaced(text("oid", oid.c_str())), spaced(text("base64", base64.c_str())),
                    spaced(number("length", length)));

    std::unique_ptr<P11KeyObject> key;
    if (oid == rsaOid) {
        NV_DBG("Generate P11RSAKeyObject");
        key = std::make_unique<P11RSAKeyObject>();
    } else if (oid == ecOid) {
        NV_DBG("Generate P11ECKeyObject");
        key = std::make_unique<P11ECKeyObject>();
    } else {
        return trace.leaving(false);
    }
    key->setKeyId(id);
    key->setPublicKey(base64);
    key->setSlotId(slot.id());
    key->setAlgorithmOid(oid);
    key->setKeyLength(length);
    key->setCurveOid(std::string(origin.curveOid));
    addKeyProperties(*key, origin.certificate);

    // Compat: a second key of a name is neither filed nor deleted; the log shows no destructor for it.
    if (const auto place = placeOf(id); isFiledAt(place, id))
        static_cast<void>(key.release());
    else
        managedKeys_.insert(place, {id, std::move(key)});
    return trace.leaving(true);
}

NCRYPT_KEY_HANDLE KeyStore::addEphemeralKey(const BYTE* pbData, DWORD cbData)
{
    const std::lock_guard guard(lock_);
    constexpr Site here = NV_HERE;
    Trace trace(here);
    trace.arguments(pointer("pbData", pbData));
    NV_TRC("0) Parse Input BLOB to get keysize (in bytes)..");
    const EccBlob blob = readEccBlob({pbData, cbData});
    if (blob.curve != nullptr)
        NV_DBG("%s recieved, length=%d bytes", blob.curve->ecdhMagicName,
               static_cast<int>(blob.coordinateSize));
    else
        NV_ERR("Unsupported/Unknown MAGIC received..");

    NV_TRC("1) Compute Public key (uncompressed format from X and Y points)..");
    if (blob.curve == nullptr)
        return trace.leaving(NCRYPT_KEY_HANDLE{0});
    if (!blob.coordinates) {
        NV_ERR("The BLOB is shorter than its header says..");
        return trace.leaving(NCRYPT_KEY_HANDLE{0});
    }
    const std::string base64 = pointText(here, *blob.coordinates);

    NV_TRC("2) Create KeyObject to get NCRYPT_KEY_HANDLE..");
    auto key = std::make_shared<P11ECKeyObject>();
    key->setPublicKey(base64);
    key->setAlgorithmOid(std::wstring(ecOid));
    key->setKeyLength(blob.curve->keyLength);
    key->setCurveOid(std::string(blob.curve->oid));
    addKeyProperties(*key, {});
    const NCRYPT_KEY_HANDLE handle = handleOf(*key);
    ephemeralKeys_[handle] = std::move(key);
    return trace.leaving(handle);
}

NCRYPT_KEY_HANDLE KeyStore::fileImported(std::unique_ptr<P11KeyObject> key)
{
    addKeyProperties(*key, {});
    const NCRYPT_KEY_HANDLE handle = handleOf(*key);
    // Before it is filed: memory may end here, and an entry must not be without a key.
    std::shared_ptr<P11KeyObject> owned(std::move(key));
    const std::lock_guard guard(lock_);
    ephemeralKeys_[handle] = std::move(owned);
    // cppcheck-suppress returnDanglingLifetime ; the address of the key, which the map owns
    return handle;
}

template <typename Key>
NCRYPT_KEY_HANDLE KeyStore::fileClone(const Site& open, const P11KeyObject& source,
                                      const char* success)
{
    auto clone = std::make_shared<Key>(static_cast<const Key&>(source));
    const NCRYPT_KEY_HANDLE handle = handleOf(*clone);
    // Filed only after the line: a clone that cannot be reported must not stay.
    NV_UNDER(TRC, open, "%s [%p]", success, asPointer(handle));
    // A close of this address may have left an entry without a key.
    std::shared_ptr<P11KeyObject>& entry = openedKeys_[handle];
    entry = std::move(clone);
    entry->setEmptiesValues(true);
    return handle;
}

NCRYPT_KEY_HANDLE KeyStore::open(const std::wstring& name)
{
    const std::lock_guard guard(lock_);
    constexpr Site here = NV_HERE;
    const Trace trace(here);
    noteKey(name);
    NV_TRC("Try to find [%s] from managed keys", toUtf8(name).c_str());
    const P11KeyObject* key = mode().forgetsUnknownNames() ? findFiled(name) : findOrInsert(name);
    NCRYPT_KEY_HANDLE handle = 0;
    if (key == nullptr) {
        NV_ERR("Failed to open the key because Not Found KeyId = %s", toUtf8(name).c_str());
    } else if (key->algorithm() == "RSA") {
        NV_TRC("Found RSA key, Try to clone the key");
        handle = fileClone<P11RSAKeyObject>(here, *key, "Clone the RSAkey as");
    } else if (key->algorithm() == "ECDSA") {
        NV_TRC("Found ECDSA key, Try to clone the key");
        handle = fileClone<P11ECKeyObject>(here, *key, "Clone the ECkey as");
    } else {
        NV_ERR("Failed to copy the key");
    }
    return trace.leaving(handle);
}

bool KeyStore::close(NCRYPT_KEY_HANDLE handle)
{
    const std::lock_guard guard(lock_);
    const Trace trace(NV_HERE);
    const bool imported = ephemeralKeys_.contains(handle);
    ByHandle& keys = imported ? ephemeralKeys_ : openedKeys_;
    // Compat: in classic, an unknown handle leaves an entry without a key behind.
    std::shared_ptr<P11KeyObject> key;
    if (!mode().checksImports() || keys.contains(handle))
        key = std::move(keys[handle]);
    const bool found = key != nullptr;
    if (found) {
        // Deleted also when the line cannot be written.
        keys.erase(handle);
        noteKey(key->keyId());
        NV_DBG("Found Key %s,", toUtf8(key->keyId()).c_str());
        key.reset();
    } else {
        NV_ERR("Not Found Key by %p", asPointer(handle));
    }
    return trace.leaving(found);
}

void KeyStore::discard(NCRYPT_KEY_HANDLE handle)
{
    const std::lock_guard guard(lock_);
    const auto entry = openedKeys_.find(handle);
    if (entry == openedKeys_.end())
        return;
    entry->second->setEmptiesValues(false);
    openedKeys_.erase(entry);
}

P11KeyObject* KeyStore::findOpened(NCRYPT_KEY_HANDLE handle)
{
    return ownerOfOpened(handle).get();
}

std::shared_ptr<P11KeyObject> KeyStore::ownerOfOpened(NCRYPT_KEY_HANDLE handle)
{
    const std::lock_guard guard(lock_);
    const auto entry = openedKeys_.find(handle);
    if (entry == openedKeys_.end() || entry->second == nullptr)
        return nullptr;
    noteKey(entry->second->keyId());
    return entry->second;
}

P11KeyObject* KeyStore::findOpenedOrImported(NCRYPT_KEY_HANDLE handle)
{
    if (P11KeyObject* opened = findOpened(handle))
        return opened;
    const std::lock_guard guard(lock_);
    const auto entry = ephemeralKeys_.find(handle);
    return entry != ephemeralKeys_.end() ? entry->second.get() : nullptr;
}

P11KeyObject* KeyStore::keyAt(size_t position)
{
    const std::lock_guard guard(lock_);
    return position < managedKeys_.size() ? managedKeys_[position].key.get() : nullptr;
}

size_t KeyStore::keyCount()
{
    const std::lock_guard guard(lock_);
    return managedKeys_.size();
}

}  // namespace NV
