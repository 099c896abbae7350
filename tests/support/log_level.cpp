#include "proximity/QZWLogger.h"
#include "support/test_support.h"

namespace quenby::test {

LogLevelGuard::LogLevelGuard(int level) : saved_(QZWLogger::level()) {
    QZWLogger::setLevel(level);
}
LogLevelGuard::~LogLevelGuard() {
    QZWLogger::setLevel(saved_);
}

}  // namespace quenby::test
