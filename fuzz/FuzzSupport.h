#pragma once

#include <QByteArrayView>
#include <QLoggingCategory>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

// A property that does not hold is a finding: stop with the input in hand.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "property failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

// The same, printing what explains the failure first.
#define FUZZ_CHECK_SAYING(condition, explanation)                                                  \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s\n", qPrintable(explanation));                                 \
            FUZZ_CHECK(condition);                                                                 \
        }                                                                                          \
    } while (false)

namespace FuzzSupport {

inline QByteArrayView bytes(const uint8_t *data, size_t size)
{
    return QByteArrayView(reinterpret_cast<const char *>(data), qsizetype(size));
}

inline QString text(const uint8_t *data, size_t size)
{
    return QString::fromUtf8(bytes(data, size));
}

// Parsers log what they reject; at millions of inputs that is only noise.
inline void quiet()
{
    QLoggingCategory::setFilterRules(QStringLiteral("*=false"));
}

} // namespace FuzzSupport

#define FUZZ_QUIET                                                                                 \
    extern "C" int LLVMFuzzerInitialize(int *, char ***)                                           \
    {                                                                                              \
        FuzzSupport::quiet();                                                                      \
        return 0;                                                                                  \
    }
