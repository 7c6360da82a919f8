#include "sound/portaudiolibrary.h"

#include <QDir>
#include <QFile>
#include <QMutex>
#include <QTemporaryDir>

#include <dlfcn.h>
#include <vector>

namespace {

// Abandoned copies: kept here so that no last reference ever unloads one.
QMutex sAbandonedMutex;
std::vector<std::shared_ptr<PortAudioLibrary>>& abandonedLibraries()
{
    static auto* libraries = new std::vector<std::shared_ptr<PortAudioLibrary>>();
    return *libraries; // never destroyed: threads may still run inside them at exit
}

template <typename Function> bool lookUp(void* handle, const char* name, Function& target)
{
    target = reinterpret_cast<Function>(::dlsym(handle, name));
    return target != nullptr;
}

} // namespace

std::shared_ptr<PortAudioLibrary> PortAudioLibrary::linked()
{
    std::shared_ptr<PortAudioLibrary> library(new PortAudioLibrary());
    library->Initialize = &Pa_Initialize;
    library->Terminate = &Pa_Terminate;
    library->GetVersion = &Pa_GetVersion;
    library->GetVersionText = &Pa_GetVersionText;
    library->GetErrorText = &Pa_GetErrorText;
    library->GetDeviceCount = &Pa_GetDeviceCount;
    library->GetDeviceInfo = &Pa_GetDeviceInfo;
    library->GetHostApiInfo = &Pa_GetHostApiInfo;
    library->GetDefaultOutputDevice = &Pa_GetDefaultOutputDevice;
    library->IsFormatSupported = &Pa_IsFormatSupported;
    library->OpenStream = &Pa_OpenStream;
    library->GetStreamInfo = &Pa_GetStreamInfo;
    library->StartStream = &Pa_StartStream;
    library->StopStream = &Pa_StopStream;
    library->CloseStream = &Pa_CloseStream;
    library->IsStreamActive = &Pa_IsStreamActive;
    library->SetStreamFinishedCallback = &Pa_SetStreamFinishedCallback;
    return library;
}

std::shared_ptr<PortAudioLibrary> PortAudioLibrary::freshCopy(QString* error)
{
    // The file the linked library was loaded from.
    Dl_info info = {};
    if (::dladdr(reinterpret_cast<void*>(&Pa_Initialize), &info) == 0 || !info.dli_fname) {
        if (error) {
            *error = QStringLiteral("cannot tell which file PortAudio was loaded from");
        }
        return nullptr;
    }
    // A copy under a name of its own: the dynamic loader hands out the loaded
    // library again for a file it already knows, and a copy is a new file.
    QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/arbo-portaudio-XXXXXX"));
    const QString copy = dir.filePath(QStringLiteral("libportaudio-copy.so"));
    if (!dir.isValid() || !QFile::copy(QFile::decodeName(info.dli_fname), copy)) {
        if (error) {
            *error = QStringLiteral("cannot copy %1 to %2")
                         .arg(QFile::decodeName(info.dli_fname), copy);
        }
        return nullptr;
    }
    // Private symbols, resolved now: the copy must not take the place of the
    // linked library for anybody else. Once mapped, the file may go.
    void* handle = ::dlopen(QFile::encodeName(copy).constData(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        if (error) {
            *error = QString::fromLocal8Bit(::dlerror());
        }
        return nullptr;
    }
    std::shared_ptr<PortAudioLibrary> library(new PortAudioLibrary());
    library->mHandle = handle;
    if (!library->resolve(error)) {
        return nullptr; // left loaded: unloading a half-resolved copy gains nothing
    }
    return library;
}

bool PortAudioLibrary::resolve(QString* error)
{
    const bool ok = lookUp(mHandle, "Pa_Initialize", Initialize) &&
                    lookUp(mHandle, "Pa_Terminate", Terminate) &&
                    lookUp(mHandle, "Pa_GetVersion", GetVersion) &&
                    lookUp(mHandle, "Pa_GetVersionText", GetVersionText) &&
                    lookUp(mHandle, "Pa_GetErrorText", GetErrorText) &&
                    lookUp(mHandle, "Pa_GetDeviceCount", GetDeviceCount) &&
                    lookUp(mHandle, "Pa_GetDeviceInfo", GetDeviceInfo) &&
                    lookUp(mHandle, "Pa_GetHostApiInfo", GetHostApiInfo) &&
                    lookUp(mHandle, "Pa_GetDefaultOutputDevice", GetDefaultOutputDevice) &&
                    lookUp(mHandle, "Pa_IsFormatSupported", IsFormatSupported) &&
                    lookUp(mHandle, "Pa_OpenStream", OpenStream) &&
                    lookUp(mHandle, "Pa_GetStreamInfo", GetStreamInfo) &&
                    lookUp(mHandle, "Pa_StartStream", StartStream) &&
                    lookUp(mHandle, "Pa_StopStream", StopStream) &&
                    lookUp(mHandle, "Pa_CloseStream", CloseStream) &&
                    lookUp(mHandle, "Pa_IsStreamActive", IsStreamActive) &&
                    lookUp(mHandle, "Pa_SetStreamFinishedCallback", SetStreamFinishedCallback);
    if (!ok && error) {
        *error = QStringLiteral("the PortAudio copy lacks a function");
    }
    return ok;
}

void PortAudioLibrary::abandon(const std::shared_ptr<PortAudioLibrary>& library)
{
    if (!library || library->mAbandoned) {
        return;
    }
    library->mAbandoned = true;
    QMutexLocker lock(&sAbandonedMutex);
    abandonedLibraries().push_back(library);
}
