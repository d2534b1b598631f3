// The in-house exceptions.
//
// An Exception carries a message value (usually a catalogue message with inserts), the source
// file and line where it was thrown, a stack trace, a severity and a list of linked exceptions
// (the causes it wraps). Throw through ZQ_THROW (or preThrow with an explicit file), the
// pre-throw processing that records the location and the stack trace, so that whoever logs the
// exception can say where it came from.
//
// StdException wraps a standard exception into this family; InvalidHandleException is what an
// empty Handle throws; OutOfMemoryError (memalloc.h) is the allocator's failure.
#pragma once

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/string.h"

namespace kiv {

class Exception : public std::exception {
public:
    enum ExceptionSeverity {
        kSeverityUser = 0,
        kSeverityNotSet = 1,
        kSeverityNormal = 2,
        kSeverityCritical = 3,
        kSeverityUnknown = 4,
        kSeverityFatal = 5,
        kSeverityCorruption = 6
    };

    explicit Exception(const GDValue& msg, ExceptionSeverity nSeverity = kSeverityNotSet);
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() override;

    // A heap copy of the same dynamic type (used to keep linked exceptions).
    virtual Exception* clone() const { return new Exception(*this); }
    // Throws a copy of the same dynamic type.
    [[noreturn]] virtual void rethrow() const { throw *this; }

    const GDValue& getMsg() const noexcept { return *m_msg; }
    // The file recorded by the pre-throw processing; empty when it never ran.
    const char* getFile() const noexcept { return m_strFile.c_str(); }
    unsigned getLine() const noexcept { return m_nLine; }
    const String& getStackTrace() const noexcept { return m_strStackTrace; }
    ExceptionSeverity getSeverity() const noexcept { return m_nSeverity; }
    void setSeverity(ExceptionSeverity nSeverity) noexcept { m_nSeverity = nSeverity; }

    void setLocation(const char* pszFile, unsigned nLine);
    void captureStackTrace();

    // Adds a copy of the exception (with its own links) as a cause of this one.
    void linkException(const Exception& linked);
    const std::vector<std::unique_ptr<Exception>>& getLinkedExceptions() const noexcept {
        return m_vecLinked;
    }
    // Every linked exception, depth first in linking order (each followed by its own links);
    // this exception itself is not in the list, so an exception without links gives none.
    std::vector<const Exception*> getFlattenedListOfLinkedExceptions() const;

    // The message text in UTF-8.
    const char* what() const noexcept override;

private:
    void appendFlattened(std::vector<const Exception*>& out) const;

    GDVariant m_msg;
    std::string m_strFile;
    unsigned m_nLine = 0;
    String m_strStackTrace;
    ExceptionSeverity m_nSeverity;
    std::vector<std::unique_ptr<Exception>> m_vecLinked;
    mutable std::string m_strWhat;
};

// Declares clone and rethrow for a class derived from Exception.
#define ZQ_EXCEPTION_COMMON(ClassName)           \
    ClassName* clone() const override {          \
        return new ClassName(*this);             \
    }                                            \
    [[noreturn]] void rethrow() const override { \
        throw *this;                             \
    }

class StdException : public Exception {
public:
    explicit StdException(const std::exception& e);
    ZQ_EXCEPTION_COMMON(StdException)
};

class InvalidHandleException : public Exception {
public:
    // typeName is the pointee's name without the library's namespaces ("LogWriter").
    explicit InvalidHandleException(const String& typeName);
    const String& getTypeName() const noexcept { return m_strTypeName; }
    ZQ_EXCEPTION_COMMON(InvalidHandleException)

private:
    String m_strTypeName;
};

// The readable name of a type without the library's namespaces:
// kiv::MessageWriter<kiv::CoutStream> reads "MessageWriter<CoutStream>".
String readableTypeName(const std::type_info& type);

// The pre-throw processing: records where the exception is thrown and the stack, then throws.
template <class E>
[[noreturn]] void preThrow(E exception, const char* pszFile, unsigned nLine) {
    exception.setLocation(pszFile, nLine);
    exception.captureStackTrace();
    throw exception;
}

}  // namespace kiv

#define ZQ_THROW(exception) ::kiv::preThrow((exception), __FILE__, __LINE__)
