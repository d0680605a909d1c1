#include "core/text/core_checkf.h"
#include "utl/utl_filelogger.h"

int main() {
    const NS_CORE::DefaultGlobals globals;
    NS_CORE::MasterLogger::setImplementation(std::make_unique<NS_UTL::FileLogger>(".", "consumer.log", 5000000, 1));
    for (int i = 0; i < 2; ++i) MLOG_LIMITED(NS_CORE::LogRate::Daily, NS_CORE::LogLevel::Crit, "main", "%s", "ready");
    const unsigned char bytes[] = {0xe9, 0x9c, 0x81};
    return CHECKF(sizeof bytes == 4, "%d bytes", sizeof bytes) ? 1 : 5;
}
