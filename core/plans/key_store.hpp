#pragma once
// The API keys the user gives Kestrel (`kestrel keys set`), by name ("deepseek", "glm-cn", ...).
// Two places can hold them: the desktop's Secret Service, when a session bus offers one, or a
// file in the support folder, keys.enc, enciphered with AES-256-GCM under a key kept apart in
// keys.key; both files are mode 0600. A key leaves the store only as the return value of get():
// errors and listings never carry it, and a listing shows fingerprints only.

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/sources/agent_catalog.hpp"

namespace kestrel {

struct KeyStoreError {
    enum class Kind {
        invalidName,     // not a short lower-case name
        keyFileMissing,  // keys.enc holds entries but keys.key is gone
        wrongKeyFile,    // keys.key is not the key keys.enc was enciphered with
        tampered,        // an entry does not authenticate: damaged or altered
        unreadable,      // a file that cannot be read or parsed
        writeFailed,     // a file that cannot be written
        serviceFailed,   // the Secret Service refused or went away
    };
    Kind kind = Kind::unreadable;
    std::string message;  // for the user; names files and entries, never a key

    bool operator==(const KeyStoreError&) const = default;
};

class KeyStore {
  public:
    virtual ~KeyStore() = default;

    // "secret-service" or "file".
    virtual std::string_view backend() const = 0;
    // Stores `secret` under `name`, replacing any earlier one.
    virtual std::expected<void, KeyStoreError> set(std::string_view name,
                                                   std::string_view secret) = 0;
    // True when something was removed.
    virtual std::expected<bool, KeyStoreError> remove(std::string_view name) = 0;
    virtual std::expected<std::optional<std::string>, KeyStoreError> get(std::string_view name) = 0;
    // The stored names, sorted.
    virtual std::expected<std::vector<std::string>, KeyStoreError> names() = 0;

    static bool isValidName(std::string_view name);
};

// The enciphered file store in `folder` (keys.enc and keys.key).
std::unique_ptr<KeyStore> makeFileKeyStore(const std::filesystem::path& folder);

// Whether this build can use the Secret Service at all (libsecret was there to build with).
bool secretServiceBuilt();

// The Secret Service store, or null when libsecret is missing or no service answers on the
// session bus.
std::unique_ptr<KeyStore> makeSecretServiceKeyStore();

// The store a run uses: the Secret Service when `env` has a session bus (and
// KESTREL_KEY_STORE is not "file") and the service answers, else the file in `supportDir`.
// A test or demo home passes an empty environment and so always gets the file.
std::unique_ptr<KeyStore> openKeyStore(const std::filesystem::path& supportDir,
                                       const EnvironmentLookup& env);

}  // namespace kestrel
