// A throw-away folder under the system's temporary directory, removed with
// everything in it when the object goes.
#pragma once

#include <cstdlib>  // mkdtemp
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>

namespace kvx::test {

class TempDir {
public:
    TempDir() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "kvx_test_XXXXXX").string();
        if (mkdtemp(tmpl.data())) dir_ = tmpl;
    }
    ~TempDir() {
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return dir_; }
    std::string file(const std::string& name) const { return (dir_ / name).string(); }
    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(dir_ / name, std::ios::binary) << bytes;
    }
    // Copies source_job + ext to name + ext for each extension.
    void copy_job(const std::string& source_job, const std::string& name,
                  std::initializer_list<const char*> exts) const {
        for (const char* e : exts) std::filesystem::copy_file(source_job + e, dir_ / (name + e));
    }
    // Every file below the folder with its contents, by relative path.
    std::map<std::string, std::string> snapshot() const {
        std::map<std::string, std::string> out;
        for (const auto& e : std::filesystem::recursive_directory_iterator(dir_)) {
            if (!e.is_regular_file()) continue;
            std::ifstream in(e.path(), std::ios::binary);
            std::ostringstream s;
            s << in.rdbuf();
            out[e.path().lexically_relative(dir_).string()] = s.str();
        }
        return out;
    }

private:
    std::filesystem::path dir_;
};

}  // namespace kvx::test
