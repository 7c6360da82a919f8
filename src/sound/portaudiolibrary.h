#pragma once

#include <portaudio.h>

#include <QString>

#include <memory>

// The PortAudio calls the audio output makes, reached through a table of
// function pointers rather than called by name, so that the output can move
// to a fresh copy of the library when the one in use can no longer be trusted.
//
// Why: when an audio server goes away under a running stream (a JACK server
// killed or restarted, a USB interface pulled), some host APIs never come back
// from stopping, aborting or closing that stream: PortAudio's JACK host waits
// ten minutes on a condition that only the vanished server would signal, and
// Pa_Terminate closes every open stream the same way. A library in that state
// is "abandoned": nothing calls into it again, it is never terminated and
// never unloaded (a thread of ours may still be waiting inside it). To open a
// device again the output then loads a private copy of the same library file,
// which has its own global state and starts from scratch; the abandoned one
// stays mapped for as long as the process lives. Each copy costs the size of
// the library (a few hundred KB) once per lost device, so it is rare and small.
//
// GUI thread. The functions themselves keep PortAudio's own thread rules.
class PortAudioLibrary
{
public:
    // The copy the program was linked with.
    static std::shared_ptr<PortAudioLibrary> linked();
    // A private copy of the linked library's file, loaded afresh. Null, with
    // the reason in `error`, when the file cannot be found, copied or loaded.
    static std::shared_ptr<PortAudioLibrary> freshCopy(QString* error = nullptr);

    // Marks `library` as never to be called again (see above) and keeps it
    // alive for good: threads may still be waiting inside it.
    static void abandon(const std::shared_ptr<PortAudioLibrary>& library);
    bool isAbandoned() const { return mAbandoned; }

    decltype(&Pa_Initialize) Initialize = nullptr;
    decltype(&Pa_Terminate) Terminate = nullptr;
    decltype(&Pa_GetVersion) GetVersion = nullptr;
    decltype(&Pa_GetVersionText) GetVersionText = nullptr;
    decltype(&Pa_GetErrorText) GetErrorText = nullptr;
    decltype(&Pa_GetDeviceCount) GetDeviceCount = nullptr;
    decltype(&Pa_GetDeviceInfo) GetDeviceInfo = nullptr;
    decltype(&Pa_GetHostApiInfo) GetHostApiInfo = nullptr;
    decltype(&Pa_GetDefaultOutputDevice) GetDefaultOutputDevice = nullptr;
    decltype(&Pa_IsFormatSupported) IsFormatSupported = nullptr;
    decltype(&Pa_OpenStream) OpenStream = nullptr;
    decltype(&Pa_GetStreamInfo) GetStreamInfo = nullptr;
    decltype(&Pa_StartStream) StartStream = nullptr;
    decltype(&Pa_StopStream) StopStream = nullptr;
    decltype(&Pa_CloseStream) CloseStream = nullptr;
    decltype(&Pa_IsStreamActive) IsStreamActive = nullptr;
    decltype(&Pa_SetStreamFinishedCallback) SetStreamFinishedCallback = nullptr;

private:
    PortAudioLibrary() = default;
    bool resolve(QString* error);

    void* mHandle = nullptr; // dlopen handle of a private copy; null for the linked one
    bool mAbandoned = false;
};
