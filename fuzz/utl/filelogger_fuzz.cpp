// Any records under any limit: each is whole in exactly one file, in order, and a file is put aside as soon as it is
// larger than the limit.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "core/check/core_assert.h"
#include "fuzz/memory_dir.h"
#include "fuzz/require.h"
#include "utl/utl_filelogger.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kStampLength = sizeof("2019-11-20 20 14:49:57 ") - 1;

const fs::path& directory() {
    static const MemoryDir directory;
    return directory.path();
}

// A file as the records that it holds.
using Records = std::deque<std::string>;

uint64_t sizeOf(const Records& records) {
    uint64_t size = 0;
    for (const std::string& record : records) size += kStampLength + record.size() + 1;
    return size;
}

void requireFile(const std::string& name, const Records& records) {
    std::ifstream file(directory() / name, std::ios::binary);
    require(file.is_open() == !records.empty(), "a file is missing, or there is one too many");
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    require(bytes.size() == sizeOf(records), "another size");
    size_t position = 0;
    for (const std::string& record : records) {
        position += kStampLength;
        require(bytes.compare(position, record.size() + 1, record + '\n') == 0, "another record");
        position += record.size() + 1;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Numbers that are not there yet fail checks by design.
    NS_CORE::Assert::installFailureHandler(nullptr);
    FuzzedDataProvider input(data, size);
    for (const fs::directory_entry& entry : fs::directory_iterator(directory())) fs::remove(entry.path());
    const auto limit = input.ConsumeIntegralInRange<uint32_t>(0, 200);
    const auto keep = input.ConsumeIntegralInRange<uint32_t>(0, 4);
    const size_t kept = keep == 1 ? 1 : keep + 1;
    NS_UTL::FileLogger logger(directory().string(), "f", limit, keep);
    Records current;
    std::deque<Records> old; // the newest first
    for (int count = 0; count < 20 && input.remaining_bytes() > 0; ++count) {
        const std::string text = input.ConsumeRandomLengthString(100);
        logger.log(NS_CORE::LogLevel::Warn, 0, {}, 0, text.data(), text.size());
        current.push_back(text);
        if (sizeOf(current) <= limit) continue;
        old.push_front(current);
        if (old.size() > kept) old.pop_back();
        current.clear();
    }
    requireFile("f", current);
    for (size_t number = 0; number < kept + 2; ++number)
        requireFile(keep == 1 ? (number == 0 ? "f.old" : "f." + std::to_string(number)) : "f." + std::to_string(number),
                    number < old.size() ? old[number] : Records());
    return 0;
}
