// Index messages: objects whose fields are addressed by two short
// identifiers and two numeric keys, holding strings, integers, nested objects
// and lists.
#pragma once
#include <map>
#include <string>
#include <tuple>
#include <vector>

class CNMessageBase;

struct CNFieldKey {
    int id1, id2;
    long long key1, key2;
    bool operator<(const CNFieldKey& o) const {
        return std::tie(id1, id2, key1, key2) < std::tie(o.id1, o.id2, o.key1, o.key2);
    }
};

struct CNField {
    enum Kind { String, Int64, Object, ObjectList, UIntList } kind = String;
    std::string text;
    long long number = 0;
    std::vector<CNMessageBase> objects;  // one for Object, any number for ObjectList
    std::vector<unsigned int> uints;
};

class CNMessageBase {
public:
    CNMessageBase(int family, int type) : m_family(family), m_type(type) {}
    virtual ~CNMessageBase() {}

    int family() const { return m_family; }
    int type() const { return m_type; }

    void setstring(int id1, int id2, long long key1, long long key2, const std::string& value);
    void setint64(int id1, int id2, long long key1, long long key2, long long value);
    // The nested object of a field, made when `create` is set; null otherwise
    // when absent. `extra1`/`extra2` name the nested message's numbers.
    CNMessageBase* getObjectAccessor(int id1, int id2, long long key1, long long key2, bool create, bool,
                                     int extra1, int extra2);
    // The list of a field, made when `forAppend` is set; null otherwise when
    // absent.
    std::vector<CNMessageBase>* getlistobject(int id1, int id2, long long key1, long long key2, bool forAppend);
    std::vector<unsigned int>* getlistuint(int id1, int id2, long long key1, long long key2, bool forAppend);
    // A readable, JSON-like rendering of every field.
    void serialize(std::string& out, bool pretty) const;

    // Reading back, for the index service and tests.
    bool getstring(int id1, int id2, long long key1, long long key2, std::string* value) const;
    bool getint64(int id1, int id2, long long key1, long long key2, long long* value) const;
    const CNMessageBase* getobject(int id1, int id2, long long key1, long long key2) const;
    const std::vector<CNMessageBase>* listobject(int id1, int id2, long long key1, long long key2) const;
    const std::vector<unsigned int>* listuint(int id1, int id2, long long key1, long long key2) const;
    size_t fieldCount() const { return m_fields.size(); }

private:
    const CNField* find(int id1, int id2, long long key1, long long key2, CNField::Kind kind) const;
    CNField* slot(int id1, int id2, long long key1, long long key2, CNField::Kind kind, bool create);
    int m_family, m_type;
    std::map<CNFieldKey, CNField> m_fields;
};

namespace databrowse {
class BrowseRequest : public CNMessageBase {
public:
    BrowseRequest() : CNMessageBase(100, 92) {}
};
class BrowseResponse : public CNMessageBase {
public:
    BrowseResponse() : CNMessageBase(100, 101) {}
};
class BrowsePath : public CNMessageBase {
public:
    BrowsePath() : CNMessageBase(100, 3) {}
};
}  // namespace databrowse

namespace Indexing {
class IdxLiveUpdateReq : public CNMessageBase {
public:
    IdxLiveUpdateReq() : CNMessageBase(48, 122) {}
};
class IdxLiveUpdateExtent : public CNMessageBase {
public:
    IdxLiveUpdateExtent() : CNMessageBase(48, 365) {}
};
}  // namespace Indexing
