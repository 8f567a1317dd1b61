// A Storage that passes every call to another and can end the process, as a
// kill would, at a named step of an import: after a file is staged
// ("copied"), after the first file is published ("renamed"), once all are
// published and made durable ("renamed-all"), with the new catalog written
// beside the old ("catalog-written"), and once it replaced it ("saved").
#pragma once
#include <memory>
#include <string>

#include "store/storage.h"

namespace zxtest {

class CrashingStorage : public zxblk::Storage {
public:
    // `step` "" never crashes; the process ends with exit code 9.
    CrashingStorage(std::shared_ptr<zxblk::Storage> inner, std::string step);

    bool remote() const override { return m_inner->remote(); }
    std::unique_ptr<zxblk::ObjectReader> openReader(const std::string& name,
                                                    const zxblk::OpenHints& hints) const override {
        return m_inner->openReader(name, hints);
    }
    zxblk::ObjectInfo stat(const std::string& name) const override { return m_inner->stat(name); }
    bool readWhole(const std::string& name, uint64_t most, std::string& out,
                   const std::function<bool(const std::string&)>& known) const override {
        return m_inner->readWhole(name, most, out, known);
    }
    std::string identity(const std::string& name) const override { return m_inner->identity(name); }
    void replace(const std::string& name, const std::string& data) const override;
    void remove(const std::string& name) const override { m_inner->remove(name); }
    std::vector<std::string> list(const std::string& prefix) const override { return m_inner->list(prefix); }
    zxblk::StorageStats stats() const override { return m_inner->stats(); }
    std::unique_ptr<Staging> stage() const override;
    std::unique_ptr<Lock> lock() const override { return m_inner->lock(); }

    // Ends the process when `step` is the one asked for.
    void at(const char* step) const;

private:
    std::shared_ptr<zxblk::Storage> m_inner;
    std::string m_step;
};

}  // namespace zxtest
