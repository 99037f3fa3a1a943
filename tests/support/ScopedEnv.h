#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace vigil_test {

// Sets or clears one environment variable for a scope and puts back what was there. `name` must
// outlive the object. Not for tests that run threads reading the environment meanwhile.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) previous_ = old;
        set(value);
    }
    ~ScopedEnv() { set(previous_ ? previous_->c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

    // Sets the variable, or clears it for nullptr; the destructor still restores the original.
    void set(const char* value) {
        if (value != nullptr) {
            setenv(name_, value, 1);
        } else {
            unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> previous_;
};

}  // namespace vigil_test
