#include "core/plans/key_store.hpp"

#include <openssl/evp.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "core/plans/crypto_internals.hpp"
#include "core/plans/key_file_internals.hpp"

#ifdef KESTREL_HAVE_LIBSECRET
#include <libsecret/secret.h>
#endif

namespace kestrel {
namespace {

using Kind = KeyStoreError::Kind;

constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kNonceBytes = 12;
constexpr std::string_view kStoreFile = "keys.enc";
constexpr std::string_view kKeyFile = "keys.key";
// keys.enc carries an HMAC of this under the key, so that a replaced keys.key is told apart
// from an altered entry.
constexpr std::string_view kKeyCheckLabel = "kestrel key store check";

KeyStoreError failure(Kind kind, std::string message) {
    return KeyStoreError{kind, std::move(message)};
}

// The entry's name is authenticated with it, so an entry moved under another name fails.
std::string additionalData(std::string_view name) {
    return "kestrel-key:" + std::string(name);
}

class FileKeyStore final : public KeyStore {
  public:
    explicit FileKeyStore(std::filesystem::path folder) : folder_(std::move(folder)) {}

    std::string_view backend() const override { return "file"; }

    std::expected<void, KeyStoreError> set(std::string_view name,
                                           std::string_view secret) override {
        if (!isValidName(name)) {
            return std::unexpected(invalidName(name));
        }
        auto entries = load(true);
        if (!entries) {
            return std::unexpected(entries.error());
        }
        auto key = loadKey(true);
        if (!key) {
            return std::unexpected(key.error());
        }
        const auto sealed = crypto::seal(*key, additionalData(name), secret);
        if (!sealed) {
            return std::unexpected(failure(Kind::writeFailed, "cannot encipher the key"));
        }
        (*entries)[std::string(name)] = {{"nonce", crypto::toHex(sealed->substr(0, kNonceBytes))},
                                         {"data", crypto::toHex(sealed->substr(kNonceBytes))}};
        return save(*key, *entries);
    }

    std::expected<bool, KeyStoreError> remove(std::string_view name) override {
        if (!isValidName(name)) {
            return std::unexpected(invalidName(name));
        }
        auto entries = load(false);
        if (!entries) {
            return std::unexpected(entries.error());
        }
        if (!entries->contains(std::string(name))) {
            return false;
        }
        auto key = loadKey(false);
        if (!key) {
            return std::unexpected(key.error());
        }
        entries->erase(std::string(name));
        auto saved = save(*key, *entries);
        if (!saved) {
            return std::unexpected(saved.error());
        }
        return true;
    }

    std::expected<std::optional<std::string>, KeyStoreError> get(std::string_view name) override {
        if (!isValidName(name)) {
            return std::unexpected(invalidName(name));
        }
        auto entries = load(false);
        if (!entries) {
            return std::unexpected(entries.error());
        }
        const auto it = entries->find(std::string(name));
        if (it == entries->end()) {
            return std::optional<std::string>{};
        }
        auto key = loadKey(false);
        if (!key) {
            return std::unexpected(key.error());
        }
        const auto nonce = crypto::fromHex(it->value("nonce", ""));
        const auto data = crypto::fromHex(it->value("data", ""));
        std::optional<std::string> plain;
        if (nonce && data && nonce->size() == kNonceBytes) {
            plain = crypto::unseal(*key, additionalData(name), *nonce + *data);
        }
        if (!plain) {
            return std::unexpected(
                failure(Kind::tampered, "the key store entry \"" + std::string(name) + "\" in " +
                                            storePath().string() +
                                            " is damaged or was altered; set it again"));
        }
        return plain;
    }

    std::expected<std::vector<std::string>, KeyStoreError> names() override {
        auto entries = load(false);
        if (!entries) {
            return std::unexpected(entries.error());
        }
        std::vector<std::string> out;
        for (const auto& [name, value] : entries->items()) {
            out.push_back(name);
        }
        std::ranges::sort(out);
        return out;
    }

  private:
    std::filesystem::path storePath() const { return folder_ / kStoreFile; }
    std::filesystem::path keyPath() const { return folder_ / kKeyFile; }

    static KeyStoreError invalidName(std::string_view name) {
        return failure(Kind::invalidName,
                       "\"" + std::string(name).substr(0, 40) +
                           "\" is not a key name (lower-case letters, digits and dashes)");
    }

    // The entries of keys.enc (empty when there is no file yet). The key check is verified
    // whenever the file has one, so a replaced key file is named as such.
    std::expected<nlohmann::json, KeyStoreError> load(bool forWriting) {
        std::error_code ec;
        if (!std::filesystem::exists(storePath(), ec)) {
            return nlohmann::json::object();
        }
        const auto text = crypto::readWholeFile(storePath());
        const auto doc = text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json();
        if (!text || doc.is_discarded() || !doc.is_object() || !doc.contains("entries") ||
            !doc["entries"].is_object()) {
            return std::unexpected(failure(
                Kind::unreadable, "the key store " + storePath().string() + " cannot be read"));
        }
        const auto& entries = doc["entries"];
        if (entries.empty() && forWriting) {
            return entries;
        }
        auto key = loadKey(false);
        if (!key) {
            return std::unexpected(key.error());
        }
        const auto check = crypto::fromHex(doc.value("keyCheck", ""));
        if (!check || !crypto::equalBytes(*check, crypto::hmacSha256(*key, kKeyCheckLabel))) {
            return std::unexpected(failure(
                Kind::wrongKeyFile, "the key file " + keyPath().string() +
                                        " is not the one the key store " + storePath().string() +
                                        " was enciphered with; restore it, or remove both files "
                                        "and set the keys again"));
        }
        return entries;
    }

    std::expected<std::string, KeyStoreError> loadKey(bool create) {
        return loadKeyFile(folder_, create);
    }

    std::expected<void, KeyStoreError> save(const std::string& key, const nlohmann::json& entries) {
        const nlohmann::json doc = {
            {"format", 1},
            {"cipher", "AES-256-GCM"},
            {"keyCheck", crypto::toHex(crypto::hmacSha256(key, kKeyCheckLabel))},
            {"entries", entries},
        };
        if (!crypto::writePrivateFile(storePath(), doc.dump(2) + "\n")) {
            return std::unexpected(
                failure(Kind::writeFailed, "cannot write " + storePath().string()));
        }
        return {};
    }

    std::filesystem::path folder_;
};

#ifdef KESTREL_HAVE_LIBSECRET

const SecretSchema* schema() {
    static const SecretSchema s = {
        "io.kestrel.ApiKey",
        SECRET_SCHEMA_NONE,
        {{"provider", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
        0,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr};
    return &s;
}

// The service's own message is kept out: some services echo what they were handed.
KeyStoreError serviceFailure(GError* error, std::string_view what) {
    if (error) {
        g_error_free(error);
    }
    return failure(Kind::serviceFailed, "the Secret Service could not " + std::string(what));
}

class SecretServiceKeyStore final : public KeyStore {
  public:
    std::string_view backend() const override { return "secret-service"; }

    std::expected<void, KeyStoreError> set(std::string_view name,
                                           std::string_view secret) override {
        if (!isValidName(name)) {
            return std::unexpected(failure(Kind::invalidName, "not a key name"));
        }
        const std::string n(name), s(secret), label = "Kestrel API key: " + n;
        GError* error = nullptr;
        const gboolean ok =
            secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(),
                                       s.c_str(), nullptr, &error, "provider", n.c_str(), nullptr);
        if (!ok || error) {
            return std::unexpected(serviceFailure(error, "store the key"));
        }
        return {};
    }

    std::expected<bool, KeyStoreError> remove(std::string_view name) override {
        const std::string n(name);
        GError* error = nullptr;
        const gboolean removed =
            secret_password_clear_sync(schema(), nullptr, &error, "provider", n.c_str(), nullptr);
        if (error) {
            return std::unexpected(serviceFailure(error, "remove the key"));
        }
        return removed == TRUE;
    }

    std::expected<std::optional<std::string>, KeyStoreError> get(std::string_view name) override {
        const std::string n(name);
        GError* error = nullptr;
        gchar* value =
            secret_password_lookup_sync(schema(), nullptr, &error, "provider", n.c_str(), nullptr);
        if (error) {
            return std::unexpected(serviceFailure(error, "read the key"));
        }
        if (!value) {
            return std::optional<std::string>{};
        }
        std::string out(value);
        secret_password_free(value);
        return out;
    }

    std::expected<std::vector<std::string>, KeyStoreError> names() override {
        GError* error = nullptr;
        GList* items =
            secret_password_search_sync(schema(), SECRET_SEARCH_ALL, nullptr, &error, nullptr);
        if (error) {
            return std::unexpected(serviceFailure(error, "list the keys"));
        }
        std::vector<std::string> out;
        for (GList* item = items; item; item = item->next) {
            GHashTable* attributes =
                secret_retrievable_get_attributes(static_cast<SecretRetrievable*>(item->data));
            if (const auto* provider =
                    static_cast<const char*>(g_hash_table_lookup(attributes, "provider"))) {
                out.emplace_back(provider);
            }
            g_hash_table_unref(attributes);
        }
        g_list_free_full(items, g_object_unref);
        std::ranges::sort(out);
        out.erase(std::unique(out.begin(), out.end()), out.end());
        return out;
    }
};

#endif

}  // namespace

std::expected<std::string, KeyStoreError> loadKeyFile(const std::filesystem::path& folder,
                                                      bool create) {
    const auto keyPath = folder / kKeyFile;
    std::error_code ec;
    if (!std::filesystem::exists(keyPath, ec)) {
        if (!create) {
            return std::unexpected(
                failure(Kind::keyFileMissing, "the key file " + keyPath.string() +
                                                  " is missing: what it enciphered in " +
                                                  folder.string() + " cannot be deciphered"));
        }
        std::string key = crypto::randomBytes(kKeyBytes);
        if (!crypto::writePrivateFile(keyPath, key)) {
            return std::unexpected(failure(Kind::writeFailed, "cannot write " + keyPath.string()));
        }
        return key;
    }
    auto key = crypto::readWholeFile(keyPath);
    if (!key) {
        return std::unexpected(
            failure(Kind::unreadable, "the key file " + keyPath.string() + " cannot be read"));
    }
    if (key->size() != kKeyBytes) {
        return std::unexpected(failure(
            Kind::wrongKeyFile,
            "the key file " + keyPath.string() + " does not hold a key of Kestrel's key store"));
    }
    return *key;
}

bool KeyStore::isValidName(std::string_view name) {
    return !name.empty() && name.size() <= 64 && std::ranges::all_of(name, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
    });
}

std::unique_ptr<KeyStore> makeFileKeyStore(const std::filesystem::path& folder) {
    return std::make_unique<FileKeyStore>(folder);
}

bool secretServiceBuilt() {
#ifdef KESTREL_HAVE_LIBSECRET
    return true;
#else
    return false;
#endif
}

std::unique_ptr<KeyStore> makeSecretServiceKeyStore() {
#ifdef KESTREL_HAVE_LIBSECRET
    GError* error = nullptr;
    SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &error);
    if (error || !service) {
        if (error) {
            g_error_free(error);
        }
        return nullptr;
    }
    g_object_unref(service);
    return std::make_unique<SecretServiceKeyStore>();
#else
    return nullptr;
#endif
}

std::unique_ptr<KeyStore> openKeyStore(const std::filesystem::path& supportDir,
                                       const EnvironmentLookup& env) {
    const auto bus = env ? env("DBUS_SESSION_BUS_ADDRESS") : std::nullopt;
    const auto choice = env ? env("KESTREL_KEY_STORE") : std::nullopt;
    std::error_code ec;
    // Keys already kept in the file stay there: a session bus appearing later must not hide them.
    const bool fileInUse = std::filesystem::exists(supportDir / kStoreFile, ec);
    if (bus && !bus->empty() && choice.value_or("") != "file" && !fileInUse) {
        if (auto service = makeSecretServiceKeyStore()) {
            return service;
        }
    }
    return makeFileKeyStore(supportDir);
}

}  // namespace kestrel
