#pragma once

#include <QString>

// A private mount namespace for tests that lay their own /sys, /dev or
// /run/corvex_platform over the machine's without touching it.
//
// unshare(CLONE_NEWNS) works only while the process has one thread, so
// EnterPrivateMountNamespace() must run in main() before QCoreApplication.
bool EnterPrivateMountNamespace();
// Empty when the namespace is in place; otherwise why it is not.
QString PrivateMountNamespaceUnavailable();

// Mounts a fresh tmpfs over dir (created if missing), inside the namespace.
bool MountTmpfs(const QString& dir);
// Replaces /dev with a tmpfs holding only null, zero, full, random, urandom
// and tty (bound from the real ones), so tests can create device nodes.
bool ReplaceDevWithTmpfs();

// main() for a QtTest class that needs the namespace.
#define LARKD_NAMESPACE_TEST_MAIN(TestClass)                                                                 \
    int main(int argc, char** argv)                                                                          \
    {                                                                                                        \
        EnterPrivateMountNamespace();                                                                        \
        QCoreApplication app(argc, argv);                                                                    \
        TestClass test;                                                                                      \
        return QTest::qExec(&test, argc, argv);                                                              \
    }

#define LARKD_REQUIRE_NAMESPACE()                                                                            \
    do {                                                                                                     \
        if (!PrivateMountNamespaceUnavailable().isEmpty())                                                   \
            QSKIP(qPrintable(PrivateMountNamespaceUnavailable()));                                           \
    } while (false)
