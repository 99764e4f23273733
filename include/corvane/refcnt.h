// Common::IRefCnt, the intrusive reference count of every shared object, and the
// smart pointers that hold it. A new object starts at 0; the first SmartPtr brings it to 1.
// addRef and release are safe from any thread; a SmartPtr object itself is not atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace Common {

class IRefCnt {
public:
    IRefCnt() noexcept : count(0) {}
    // A copy is a new object: it starts uncounted whatever the original's count was.
    IRefCnt(const IRefCnt &) noexcept : count(0) {}
    IRefCnt & operator=(const IRefCnt &) noexcept { return *this; }
    virtual ~IRefCnt() = default;

    void addRef() const noexcept { count.fetch_add(1, std::memory_order_seq_cst); }

    // Deletes the object on the thread that drops the last reference; no other thread
    // can be inside it then.
    void release() const noexcept {
        if (count.fetch_sub(1, std::memory_order_seq_cst) == 1) {
            delete this;
        }
    }

    std::int32_t refCount() const noexcept { return count.load(std::memory_order_seq_cst); }

private:
    mutable std::atomic<std::int32_t> count;
};

// Holds a counted reference and gives const access only.
template <class T>
class SmartPtrToConst {
public:
    SmartPtrToConst() noexcept : m_pointer(nullptr) {}
    SmartPtrToConst(const T * pointer) noexcept : m_pointer(const_cast<T *>(pointer)) {
        if (m_pointer != nullptr) {
            m_pointer->addRef();
        }
    }
    SmartPtrToConst(const SmartPtrToConst & other) noexcept : SmartPtrToConst(other.m_pointer) {}
    SmartPtrToConst(SmartPtrToConst && other) noexcept : m_pointer(other.m_pointer) {
        other.m_pointer = nullptr;
    }
    virtual ~SmartPtrToConst() {
        if (m_pointer != nullptr) {
            m_pointer->release();
        }
        m_pointer = nullptr;
    }

    // The new reference is taken before the old one is dropped, so assigning the object
    // that this pointer already holds is safe even when it holds the last reference.
    SmartPtrToConst & operator=(const T * pointer) noexcept {
        assign(const_cast<T *>(pointer));
        return *this;
    }
    SmartPtrToConst & operator=(const SmartPtrToConst & other) noexcept {
        assign(other.m_pointer);
        return *this;
    }
    SmartPtrToConst & operator=(SmartPtrToConst && other) noexcept {
        if (this != &other) {
            T * old = m_pointer;
            m_pointer = other.m_pointer;
            other.m_pointer = nullptr;
            if (old != nullptr) {
                old->release();
            }
        }
        return *this;
    }

    const T * get() const noexcept { return m_pointer; }
    const T * operator->() const noexcept { return m_pointer; }
    const T & operator*() const noexcept { return *m_pointer; }
    explicit operator bool() const noexcept { return m_pointer != nullptr; }

protected:
    void assign(T * pointer) noexcept {
        if (pointer != nullptr) {
            pointer->addRef();
        }
        T * old = m_pointer;
        if (old != nullptr) {
            old->release();
        }
        m_pointer = pointer;
    }

    T * m_pointer;
};

template <class T>
class SmartPtr : public SmartPtrToConst<T> {
public:
    SmartPtr() noexcept = default;
    SmartPtr(T * pointer) noexcept : SmartPtrToConst<T>(pointer) {}
    template <class U>
    SmartPtr(const SmartPtr<U> & other) noexcept : SmartPtrToConst<T>(other.get()) {}
    SmartPtr(const SmartPtr & other) noexcept = default;
    SmartPtr(SmartPtr && other) noexcept = default;
    ~SmartPtr() override = default;

    SmartPtr & operator=(T * pointer) noexcept {
        this->assign(pointer);
        return *this;
    }
    SmartPtr & operator=(const SmartPtr & other) noexcept {
        this->assign(other.m_pointer);
        return *this;
    }
    SmartPtr & operator=(SmartPtr && other) noexcept {
        SmartPtrToConst<T>::operator=(std::move(other));
        return *this;
    }

    T * get() const noexcept { return this->m_pointer; }
    T * operator->() const noexcept { return this->m_pointer; }
    T & operator*() const noexcept { return *this->m_pointer; }
};

template <class T, class U>
bool operator==(const SmartPtrToConst<T> & a, const SmartPtrToConst<U> & b) noexcept {
    return a.get() == b.get();
}
template <class T, class U>
bool operator!=(const SmartPtrToConst<T> & a, const SmartPtrToConst<U> & b) noexcept {
    return a.get() != b.get();
}
template <class T, class U>
bool operator==(const SmartPtrToConst<T> & a, const U * b) noexcept {
    return a.get() == b;
}
template <class T, class U>
bool operator!=(const SmartPtrToConst<T> & a, const U * b) noexcept {
    return a.get() != b;
}

}  // namespace Common
