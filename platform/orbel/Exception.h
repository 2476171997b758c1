// The framework's exception family. Every exception carries a numeric id, a message and,
// where the error is about one attribute or argument, that name.
//
//   try { ... } catch (const Orbel::RangeException& e) { std::cerr << e; }
//
// Expect marks an exception id as anticipated while it is held (a debugger or a trace can
// ask isExpected() to tell routine failures from surprises).
#pragma once

#include "String.h"

#include <exception>
#include <iosfwd>
#include <vector>

namespace Orbel {

class Exception : public std::exception {
public:
    // Ids of the family; RangeException is 12, the id code hands to Expect.
    enum Id : int {
        exception = 1,
        constId = 2,
        badIndexAttribute = 3,
        notSupported = 4,
        typeId = 5,
        unknownArgument = 6,
        nameInUse = 7,
        range = 12,
    };

    Exception(String message, int id = exception) : message_(std::move(message)), id_(id) {}
    const char* what() const noexcept override { return message_.cStr(); }
    const String& message() const noexcept { return message_; }
    int id() const noexcept { return id_; }
    // The class's qualified name, used by the stream form.
    virtual const char* typeName() const noexcept { return "Orbel::Exception"; }

private:
    String message_;
    int id_;
};

// A value or position outside what is allowed (bounds, parse errors).
class RangeException : public Exception {
public:
    explicit RangeException(String message) : Exception(std::move(message), range) {}
    const char* typeName() const noexcept override { return "Orbel::RangeException"; }
};

// An entity or row would be re-created with different constructor arguments.
class NameInUseException : public Exception {
public:
    explicit NameInUseException(String message) : Exception(std::move(message), nameInUse) {}
    const char* typeName() const noexcept override { return "Orbel::NameInUseException"; }
};

// Exceptions about one named attribute or argument; name() is that name.
class NamedException : public Exception {
public:
    NamedException(String message, String name, int id) : Exception(std::move(message), id), name_(std::move(name)) {}
    const String& name() const noexcept { return name_; }

private:
    String name_;
};

// A modifying operation on a const instance.
class ConstException : public Exception {
public:
    explicit ConstException(String message = "attempting to modify a const instance")
        : Exception(std::move(message), constId) {}
    const char* typeName() const noexcept override { return "Orbel::ConstException"; }
};

// An index given to an attribute that takes none (or the wrong kind of index).
class BadIndexAttributeException : public NamedException {
public:
    explicit BadIndexAttributeException(String attribute)
        : NamedException("attribute " + attribute + " does not take an index", attribute, badIndexAttribute) {}
    const char* typeName() const noexcept override { return "Orbel::BadIndexAttributeException"; }
};

// An operation the attribute does not support.
class NotSupportedException : public NamedException {
public:
    NotSupportedException(String attribute, unsigned op);
    unsigned op() const noexcept { return op_; }
    const char* typeName() const noexcept override { return "Orbel::NotSupportedException"; }

private:
    unsigned op_;
};

// An operand of the wrong type; name() names what was expected or the argument.
class TypeException : public NamedException {
public:
    explicit TypeException(String name) : NamedException("wrong type for " + name, name, typeId) {}
    const char* typeName() const noexcept override { return "Orbel::TypeException"; }
};

// An argument that the callee does not take; name() names the callee or attribute.
class UnknownArgumentException : public NamedException {
public:
    explicit UnknownArgumentException(String name)
        : NamedException("unknown argument for " + name, name, unknownArgument) {}
    const char* typeName() const noexcept override { return "Orbel::UnknownArgumentException"; }
};

[[noreturn]] void throwNameInUseException(const String& message);

// "Orbel::RangeException: <message>".
std::ostream& operator<<(std::ostream& os, const Exception& e);

// Declares an exception id anticipated for as long as the guard lives (per thread, nested).
class Expect {
public:
    explicit Expect(int id);
    ~Expect();
    Expect(const Expect&) = delete;
    Expect& operator=(const Expect&) = delete;
    static bool isExpected(int id) noexcept;

private:
    int id_;
};

} // namespace Orbel
