#pragma once
// Failures of the ledger store. The store is the one resource boundary that throws: every
// operation either completes or throws one of these, with the database unchanged.

#include <stdexcept>
#include <string>

#include "core/model/enum_cases.hpp"

namespace kestrel {

enum class StoreErrorCode {
    open,      // the database could not be opened, or the store is closed
    migrate,   // a migration step failed; the file stays at its last complete version
    sql,       // a statement failed during normal operation
    keychain,  // salt or key material in the platform key store could not be read or written
};

template <>
struct EnumCases<StoreErrorCode> {
    using E = StoreErrorCode;
    static constexpr std::array<std::pair<E, std::string_view>, 4> cases{{
        KESTREL_ENUM_CASE(E, open),
        KESTREL_ENUM_CASE(E, migrate),
        KESTREL_ENUM_CASE(E, sql),
        KESTREL_ENUM_CASE(E, keychain),
    }};
};

class StoreError : public std::runtime_error {
  public:
    StoreError(StoreErrorCode code, const std::string& detail)
        : std::runtime_error(detail), code_(code) {}
    StoreErrorCode code() const { return code_; }

  private:
    StoreErrorCode code_;
};

enum class LedgerStoreErrorCode { invalidBatch, invalidObservation };

template <>
struct EnumCases<LedgerStoreErrorCode> {
    using E = LedgerStoreErrorCode;
    static constexpr std::array<std::pair<E, std::string_view>, 2> cases{{
        KESTREL_ENUM_CASE(E, invalidBatch),
        KESTREL_ENUM_CASE(E, invalidObservation),
    }};
};

class LedgerStoreError : public std::runtime_error {
  public:
    LedgerStoreError(LedgerStoreErrorCode code, const std::string& detail)
        : std::runtime_error(detail), code_(code) {}
    LedgerStoreErrorCode code() const { return code_; }

  private:
    LedgerStoreErrorCode code_;
};

}  // namespace kestrel
