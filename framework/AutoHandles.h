// Scoped holders of a file descriptor and of a heap array.
#pragma once
#include <unistd.h>

#include "framework/Export.h"

// Called with a descriptor just before a holder closes it. The file layer
// keeps writes back per descriptor and installs this at start-up so that a
// plain close of the holder still writes them out; the holder itself knows
// nothing of that layer. One pointer for the whole process, whichever shared
// object the holder's code was compiled into.
using AutoHandleCloseHook = void (*)(int fd);
ZXBLK_EXPORT inline AutoHandleCloseHook g_autoHandleBeforeClose = nullptr;

inline bool _dac_is_valid_handle(int fd) { return fd >= 0; }

class auto_handle {
public:
    auto_handle() : m_fd(-1) {}
    explicit auto_handle(int fd) : m_fd(fd) {}
    ~auto_handle() { reset(-1); }
    auto_handle(const auto_handle&) = delete;
    auto_handle& operator=(const auto_handle&) = delete;

    int get() const { return m_fd; }
    bool is_valid() const { return _dac_is_valid_handle(m_fd); }
    auto_handle& reset() { return reset(-1); }
    // Resetting to the descriptor already held keeps it open: the holder must
    // never end up holding a closed descriptor.
    auto_handle& reset(int fd) {
        if (fd != m_fd && _dac_is_valid_handle(m_fd)) {
            if (AutoHandleCloseHook hook = g_autoHandleBeforeClose) hook(m_fd);
            ::close(m_fd);
        }
        m_fd = fd;
        return *this;
    }
    void __set(int fd) { m_fd = fd; }

private:
    int m_fd;
};

class __ptr_base_xx {
public:
    __ptr_base_xx() : m_ptr(nullptr) {}
    void __set(void* p) { m_ptr = p; }
    void* __get() const { return m_ptr; }

private:
    void* m_ptr;
};

template <typename T>
class auto_ptr_array : public __ptr_base_xx {
public:
    explicit auto_ptr_array(T* p = nullptr) { __set(p); }
    ~auto_ptr_array() { reset(nullptr); }
    auto_ptr_array(const auto_ptr_array&) = delete;
    auto_ptr_array& operator=(const auto_ptr_array&) = delete;

    T* get() const { return static_cast<T*>(__get()); }
    void reset(T* p) {
        T* held = get();
        if (p != held && held != nullptr) delete[] held;
        __set(p);
    }

private:
};
