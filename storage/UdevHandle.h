#pragma once

#include <functional>
#include <utility>

// Owns one libudev object and releases it with its own unref function on
// every path out of the scope that made it.
template <typename T>
class UdevHandle
{
public:
    using Factory = std::function<T*()>;
    using Deleter = std::function<void(T*)>;

    // An empty factory throws std::bad_function_call: that is a programming error.
    UdevHandle(const Factory& factory, Deleter deleter)
        : m_Pointer(factory())
        , m_Deleter(std::move(deleter))
    {
    }
    ~UdevHandle()
    {
        if (m_Pointer && m_Deleter)
            m_Deleter(m_Pointer);
    }
    UdevHandle(const UdevHandle&) = delete;
    UdevHandle& operator=(const UdevHandle&) = delete;

    T* Get() const { return m_Pointer; }
    explicit operator bool() const { return m_Pointer != nullptr; }

private:
    T* m_Pointer;
    Deleter m_Deleter;
};
