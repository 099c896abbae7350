// The process-wide partner identifier ("" until set), sent with every analytics upload.
#pragma once

#include <string>

class QZWPartner {
  public:
    // Any instance writes and reads the same shared value. Thread-safe.
    void setIdentifier(const std::string& identifier);
    std::string getIdentifier() const;
};
