#include "support/fault_storage.h"

#include <unistd.h>

namespace zxtest {
namespace {

class CrashingStaging : public zxblk::Storage::Staging {
public:
    CrashingStaging(const CrashingStorage& storage, std::unique_ptr<Staging> inner)
        : m_storage(storage), m_inner(std::move(inner)) {}
    std::string pathFor(const std::string& name) override { return m_inner->pathFor(name); }
    std::string publish(const std::string& name) override {
        if (m_published == 0) m_storage.at("copied");
        std::string etag = m_inner->publish(name);
        if (++m_published == 1) m_storage.at("renamed");
        return etag;
    }
    void commit() override {
        m_inner->commit();
        m_storage.at("renamed-all");
    }
    void keep() override { m_inner->keep(); }

private:
    const CrashingStorage& m_storage;
    std::unique_ptr<Staging> m_inner;
    int m_published = 0;
};

}  // namespace

CrashingStorage::CrashingStorage(std::shared_ptr<zxblk::Storage> inner, std::string step)
    : zxblk::Storage(inner->location()), m_inner(std::move(inner)), m_step(std::move(step)) {}

void CrashingStorage::at(const char* step) const {
    if (m_step == step) ::_exit(9);
}

// "catalog-written" leaves the new catalog beside the old one, unrenamed,
// as a process killed between the two would.
void CrashingStorage::replace(const std::string& name, const std::string& data) const {
    if (m_step == "catalog-written") {
        m_inner->replace(name + ".new", data);
        at("catalog-written");
    }
    m_inner->replace(name, data);
    at("saved");
}

std::unique_ptr<zxblk::Storage::Staging> CrashingStorage::stage() const {
    return std::unique_ptr<Staging>(new CrashingStaging(*this, m_inner->stage()));
}

}  // namespace zxtest
