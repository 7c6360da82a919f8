#pragma once

#include <QString>
#include <QTemporaryDir>

#include <sys/resource.h>

#include <memory>

// Ways to make a save fail for real, the way a user's machine does.

// Appends to the file at `fillerPath` until its file system refuses another
// byte for lack of space. False, with the reason in `error`, when it never does.
bool fillFileSystem(const QString& fillerPath, QString* error = nullptr);

// A small tmpfs mounted on a fresh temporary folder for the object's lifetime,
// and filled up to the last byte on request: a full disk. Mounting needs root
// (CI runs the tests as root); canMount() says whether this process may try.
class TmpfsMount
{
public:
    TmpfsMount() = default;
    ~TmpfsMount();
    TmpfsMount(const TmpfsMount&) = delete;
    TmpfsMount& operator=(const TmpfsMount&) = delete;

    static bool canMount();
    // Mounts a tmpfs of `bytes`. False with the reason in error().
    bool mount(qint64 bytes);
    QString path() const;
    // Writes a filler file until the file system refuses another byte for
    // lack of space. False with the reason in error() when it never does.
    bool fill();
    // Removes the filler again.
    void makeRoom();
    // Remounts the file system read-only (true) or read-write again.
    bool setReadOnly(bool readOnly);
    QString error() const { return mError; }

private:
    std::unique_ptr<QTemporaryDir> mDir;
    bool mMounted = false;
    QString mError;
};

// Lowers this process's file size limit to `bytes` for the object's lifetime,
// and ignores SIGXFSZ meanwhile: every write past that offset in any file
// then fails with "File too large". Works without privileges.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes);
    ~FileSizeLimit();
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    bool isActive() const { return mActive; }

private:
    struct rlimit mPrevious = {};
    void (*mPreviousHandler)(int) = nullptr;
    bool mActive = false;
};
