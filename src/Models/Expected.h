#pragma once

#include <optional>
#include <utility>
#include <variant>

// A value or the error that prevented it. Services hand failures back as values
// so nothing throws across the event loop.
template<typename T, typename E> class Expected final
{
public:
    Expected(T value)
        : m_data(std::in_place_index<0>, std::move(value))
    {}
    Expected(E error)
        : m_data(std::in_place_index<1>, std::move(error))
    {}

    bool hasValue() const { return m_data.index() == 0; }
    explicit operator bool() const { return hasValue(); }

    const T &value() const & { return std::get<0>(m_data); }
    T &value() & { return std::get<0>(m_data); }
    T &&value() && { return std::get<0>(std::move(m_data)); }
    const T &operator*() const & { return value(); }
    T &&operator*() && { return std::move(*this).value(); }
    const T *operator->() const { return &value(); }

    const E &error() const { return std::get<1>(m_data); }

private:
    std::variant<T, E> m_data;
};

// Done, or the error that prevented it: true on success, like every Expected.
template<typename E> class Expected<void, E> final
{
public:
    Expected() = default;
    Expected(E error)
        : m_error(std::move(error))
    {}

    bool hasValue() const { return !m_error; }
    explicit operator bool() const { return hasValue(); }

    const E &error() const { return *m_error; }

private:
    std::optional<E> m_error;
};
