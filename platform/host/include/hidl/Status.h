#pragma once

// Host stand-in for the HIDL transport status: what a call through the
// binder transport reports besides its value.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace android {
namespace hardware {

class Status final {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_SECURITY = -1,
        EX_BAD_PARCELABLE = -2,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_NETWORK_MAIN_THREAD = -6,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_HAS_REPLY_HEADER = -128,
        EX_TRANSACTION_FAILED = -129,
    };

    Status() = default;
    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exception_code, const char* message = nullptr) {
        return Status(exception_code, message != nullptr ? message : "");
    }

    bool isOk() const { return _exception == EX_NONE; }
    int32_t exceptionCode() const { return _exception; }
    const std::string& exceptionMessage() const { return _message; }

    std::string description() const {
        if (isOk()) return "No error";
        std::string text = "Status(" + std::to_string(_exception) + ")";
        if (!_message.empty()) text += ": '" + _message + "'";
        return text;
    }

  private:
    Status(int32_t exception, std::string message)
        : _exception(exception), _message(std::move(message)) {}

    int32_t _exception = EX_NONE;
    std::string _message;
};

namespace details {

// The part of every Return<> that carries the transport status.
class return_status {
  public:
    return_status() = default;
    explicit return_status(const Status& status) : _status(status) {}

    bool isOk() const { return _status.isOk(); }
    bool isDeadObject() const { return _status.exceptionCode() == Status::EX_TRANSACTION_FAILED; }
    std::string description() const { return _status.description(); }

  protected:
    // Reading the value of a failed call is a programming error the
    // platform treats as fatal.
    void assert_ok() const {
        if (!isOk()) {
            fprintf(stderr, "Attempted to retrieve value from failed HIDL call: %s\n",
                    description().c_str());
            abort();
        }
    }

  private:
    Status _status;
};

}  // namespace details

template <typename T>
class Return : public details::return_status {
  public:
    Return(T value) : _value(std::move(value)) {}  // NOLINT: implicit like the platform's
    Return(const Status& status) : details::return_status(status), _value() {}  // NOLINT

    operator T() const {
        assert_ok();
        return _value;
    }
    T withDefault(T fallback) const { return isOk() ? _value : fallback; }

  private:
    T _value;
};

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& status) : details::return_status(status) {}  // NOLINT
};

inline Return<void> Void() {
    return Return<void>();
}

}  // namespace hardware
}  // namespace android
