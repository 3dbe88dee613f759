#pragma once
// A time zone for one test: local days and hours depend on TZ.

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace kestrel::test_support {

// Sets TZ for the life of the object.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) {
            saved_ = old;
        }
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ScopedTimeZone() {
        if (saved_) {
            ::setenv("TZ", saved_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

  private:
    std::optional<std::string> saved_;
};

}  // namespace kestrel::test_support
