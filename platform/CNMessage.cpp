#include "platform/CNMessage.h"

#include "platform/FXString.h"

CNField* CNMessageBase::slot(int id1, int id2, long long key1, long long key2, CNField::Kind kind, bool create) {
    CNFieldKey key{id1, id2, key1, key2};
    auto it = m_fields.find(key);
    if (it != m_fields.end()) {
        if (it->second.kind == kind) return &it->second;
        if (!create) return nullptr;
        it->second = CNField();  // a field set again with another kind takes the new one
        it->second.kind = kind;
        return &it->second;
    }
    if (!create) return nullptr;
    CNField& f = m_fields[key];
    f.kind = kind;
    return &f;
}

const CNField* CNMessageBase::find(int id1, int id2, long long key1, long long key2, CNField::Kind kind) const {
    auto it = m_fields.find(CNFieldKey{id1, id2, key1, key2});
    return it != m_fields.end() && it->second.kind == kind ? &it->second : nullptr;
}

void CNMessageBase::setstring(int id1, int id2, long long key1, long long key2, const std::string& value) {
    slot(id1, id2, key1, key2, CNField::String, true)->text = value;
}

void CNMessageBase::setint64(int id1, int id2, long long key1, long long key2, long long value) {
    slot(id1, id2, key1, key2, CNField::Int64, true)->number = value;
}

CNMessageBase* CNMessageBase::getObjectAccessor(int id1, int id2, long long key1, long long key2, bool create, bool,
                                                int extra1, int extra2) {
    CNField* f = slot(id1, id2, key1, key2, CNField::Object, create);
    if (!f) return nullptr;
    if (f->objects.empty()) f->objects.emplace_back(extra1, extra2);
    return &f->objects.front();
}

std::vector<CNMessageBase>* CNMessageBase::getlistobject(int id1, int id2, long long key1, long long key2,
                                                         bool forAppend) {
    CNField* f = slot(id1, id2, key1, key2, CNField::ObjectList, forAppend);
    return f ? &f->objects : nullptr;
}

std::vector<unsigned int>* CNMessageBase::getlistuint(int id1, int id2, long long key1, long long key2,
                                                      bool forAppend) {
    CNField* f = slot(id1, id2, key1, key2, CNField::UIntList, forAppend);
    return f ? &f->uints : nullptr;
}

bool CNMessageBase::getstring(int id1, int id2, long long key1, long long key2, std::string* value) const {
    const CNField* f = find(id1, id2, key1, key2, CNField::String);
    if (f && value) *value = f->text;
    return f != nullptr;
}

bool CNMessageBase::getint64(int id1, int id2, long long key1, long long key2, long long* value) const {
    const CNField* f = find(id1, id2, key1, key2, CNField::Int64);
    if (f && value) *value = f->number;
    return f != nullptr;
}

const CNMessageBase* CNMessageBase::getobject(int id1, int id2, long long key1, long long key2) const {
    const CNField* f = find(id1, id2, key1, key2, CNField::Object);
    return f && !f->objects.empty() ? &f->objects.front() : nullptr;
}

const std::vector<CNMessageBase>* CNMessageBase::listobject(int id1, int id2, long long key1, long long key2) const {
    const CNField* f = find(id1, id2, key1, key2, CNField::ObjectList);
    return f ? &f->objects : nullptr;
}

const std::vector<unsigned int>* CNMessageBase::listuint(int id1, int id2, long long key1, long long key2) const {
    const CNField* f = find(id1, id2, key1, key2, CNField::UIntList);
    return f ? &f->uints : nullptr;
}

static std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20)
            out += FXString::Format("\\u%04x", c);
        else
            out += c;
    }
    return out + "\"";
}

void CNMessageBase::serialize(std::string& out, bool pretty) const {
    out += FXString::Format("{\"message\":[%d,%d],\"fields\":[", m_family, m_type);
    bool first = true;
    for (const auto& entry : m_fields) {
        const CNFieldKey& k = entry.first;
        const CNField& f = entry.second;
        out += first ? "" : ",";
        if (pretty) out += "\n  ";
        first = false;
        out += FXString::Format("{\"id\":[%d,%d],\"key\":[%lld,%lld],", k.id1, k.id2, k.key1, k.key2);
        switch (f.kind) {
            case CNField::String: out += "\"string\":" + quoted(f.text); break;
            case CNField::Int64: out += FXString::Format("\"int64\":%lld", f.number); break;
            case CNField::Object:
            case CNField::ObjectList: {
                out += f.kind == CNField::Object ? "\"object\":" : "\"objects\":[";
                for (size_t i = 0; i < f.objects.size(); ++i) {
                    if (i) out += ",";
                    f.objects[i].serialize(out, false);
                }
                if (f.kind == CNField::ObjectList) out += "]";
                break;
            }
            case CNField::UIntList:
                out += "\"uints\":[";
                for (size_t i = 0; i < f.uints.size(); ++i) out += FXString::Format(i ? ",%u" : "%u", f.uints[i]);
                out += "]";
                break;
        }
        out += "}";
    }
    out += "]}";
}
