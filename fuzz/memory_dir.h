#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>

// A directory in memory that is this process's own, and gone when the process ends.
class MemoryDir {
public:
    MemoryDir() { std::filesystem::create_directories(m_path); }
    ~MemoryDir() { std::filesystem::remove_all(m_path); }
    MemoryDir(const MemoryDir&) = delete;
    MemoryDir& operator=(const MemoryDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }

private:
    const std::filesystem::path m_path = "/dev/shm/quorkeri_fuzz." + std::to_string(::getpid());
};
