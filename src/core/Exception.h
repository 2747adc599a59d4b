#pragma once

#include <exception>
#include <string>

namespace KW {

// Base of every exception of the system: a text and a signed 32-bit code.
class Exception : public std::exception {
  public:
    explicit Exception(std::string const& message);
    ~Exception() override;
    char const* what() const noexcept override;
    virtual int code() const;

  protected:
    std::string message;
    int errorCode;
};

}  // namespace KW
