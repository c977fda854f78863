// sqlite.h - the little of SQLite that the store needs: a connection, a statement, an error.
//
// Only statestore.cpp and stateschema.cpp include it. Each call that fails throws StoreError. A connection
// and its statements belong to one thread.
#ifndef PCCAST_CLI_SQLITE_H
#define PCCAST_CLI_SQLITE_H

#include "statestore.h"

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>

// Closed at its end, after its statements.
using Connection = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;

// A prepared statement. Arguments are bound in their order with bind, or all at once with run.
class Statement {
public:
    Statement(sqlite3 *pDatabase, std::string_view sSQL) : pHandle(pDatabase) {
        check(sqlite3_prepare_v2(pHandle, sSQL.data(), static_cast<int>(sSQL.size()), &pStatement, nullptr));
    }
    ~Statement() { sqlite3_finalize(pStatement); }
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    Statement &bind(std::integral auto value) {
        check(sqlite3_bind_int64(pStatement, ++iBound, static_cast<sqlite3_int64>(value)));
        return *this;
    }
    // The bytes need not be UTF-8.
    Statement &bind(std::string_view sText) {
        check(sqlite3_bind_text64(pStatement, ++iBound, sText.data(), sText.size(), SQLITE_TRANSIENT,
                                  SQLITE_UTF8));
        return *this;
    }
    // Null becomes NULL.
    Statement &bind(const char *pszText) {
        return pszText == nullptr ? bindNull() : bind(std::string_view(pszText));
    }
    Statement &bindNull() {
        check(sqlite3_bind_null(pStatement, ++iBound));
        return *this;
    }
    Statement &bindBytes(const void *pBytes, size_t uSize) {
        if (pBytes == nullptr) {
            return bindNull();
        }
        check(sqlite3_bind_blob64(pStatement, ++iBound, pBytes, uSize, SQLITE_TRANSIENT));
        return *this;
    }

    // Returns whether there is a row.
    bool step() {
        const int iResult = sqlite3_step(pStatement);
        if (iResult != SQLITE_ROW && iResult != SQLITE_DONE) {
            check(iResult);
        }
        bRow = iResult == SQLITE_ROW;
        return bRow;
    }
    template <typename... Arguments>
    Statement &run(const Arguments &...arguments) {
        (bind(arguments), ...);
        step();
        return *this;
    }

    // The first column of the row that there is, as an id; 0: there is no row.
    long long id() const { return bRow ? static_cast<long long>(number(0)) : 0; }
    // Room for so many arguments.
    int arguments() const { return sqlite3_bind_parameter_count(pStatement); }

    bool isNumber(int iColumn) const { return sqlite3_column_type(pStatement, iColumn) == SQLITE_INTEGER; }
    bool isNull(int iColumn) const { return sqlite3_column_type(pStatement, iColumn) == SQLITE_NULL; }
    unsigned long number(int iColumn) const {
        return static_cast<unsigned long>(sqlite3_column_int64(pStatement, iColumn));
    }
    std::string text(int iColumn) const {
        const void *const pBytes = sqlite3_column_blob(pStatement, iColumn);
        const auto uSize = static_cast<size_t>(sqlite3_column_bytes(pStatement, iColumn));
        return pBytes == nullptr ? std::string() : std::string(static_cast<const char *>(pBytes), uSize);
    }

private:
    void check(int iResult) const {
        if (iResult != SQLITE_OK) {
            throw StoreError(iResult, sqlite3_errmsg(pHandle));
        }
    }

    sqlite3 *pHandle;
    sqlite3_stmt *pStatement = nullptr;
    int iBound = 0;
    bool bRow = false;
};

// Changes that happen together, or not at all.
class Transaction {
public:
    explicit Transaction(sqlite3 *pDatabase) : pHandle(pDatabase) {
        Statement(pHandle, "BEGIN IMMEDIATE").run();
    }
    ~Transaction() {
        if (!bCommitted) {
            sqlite3_exec(pHandle, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;

    void commit() {
        Statement(pHandle, "COMMIT").run();
        bCommitted = true;
    }

private:
    sqlite3 *pHandle;
    bool bCommitted = false;
};

#endif
