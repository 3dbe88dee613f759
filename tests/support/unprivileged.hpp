#pragma once
// File permissions do not bind root, and CI runs as root. While an Unprivileged object lives,
// file access is checked as for the user "nobody" (the effective user id is switched and
// restored; the real one stays, so switching back is always allowed). Files already open stay
// usable, so a ledger opened before keeps working.

#include <unistd.h>

#include <stdexcept>

namespace kestrel::test_support {

class Unprivileged {
  public:
    static constexpr uid_t kNobody = 65534;

    Unprivileged() : previous_(::geteuid()) {
        if (previous_ == 0 && ::seteuid(kNobody) != 0) {
            throw std::runtime_error("cannot switch the effective user to nobody");
        }
    }
    ~Unprivileged() {
        if (previous_ == 0) {
            (void)::seteuid(0);
        }
    }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

  private:
    uid_t previous_;
};

}  // namespace kestrel::test_support
