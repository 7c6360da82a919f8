#pragma once

#include "input/inputmap.h"
#include "input/rfidmap.h"
#include "model/arboevent.h"
#include "settings/throttledwarning.h"

#include <QString>

#include <lo/lo.h>

class InputBinding;
class OscInput;

// What the OSC input's thread does with each message (the addresses and rules
// are described with OscInput). Made by OscInput::openPort() and freed by its
// closePort(), on the receiving thread: nothing here is shared.
class OscReceiver
{
public:
    explicit OscReceiver(const OscInput& input) : mInput(input) {}

    // The wands' tag map, when the user has one. Without the file nothing is
    // written: its presence is what switches the wand listener on.
    void loadTags();

    // One message; the bindings are the ones in force as it arrives.
    void handle(const char* address, const char* types, lo_arg** argv, int argc);

    // liblo found a packet it cannot take apart.
    void malformed(const char* message, const char* where);

    void summariseIfDue();
    void summarise();

    // Set while the server is being made: its errors are about the port.
    QString mOpenError;
    bool mOpening = true;

private:
    // A message's arguments (argv is null when there are none).
    struct Message
    {
        const char* address;
        const char* types;
        lo_arg** argv;
        int argc;

        // The text of string or symbol argument `i`; null for anything else.
        const char* text(int i) const;
        // The number argument `i` holds (with `booleans`, true and false as 1
        // and 0); false for anything else and for numbers that are not finite.
        bool number(int i, bool booleans, double* out) const;
    };

    void toggle(const Message& m);
    void event(const Message& m, const InputMap::Bindings& bindings);
    void tag(const Message& m);
    void note(const Message& m);
    // /arbo/scene/recall ,N i; /arbo/scene/next; /arbo/scene/previous;
    // /arbo/scene/store ,s name: `verb` is what follows "/arbo/scene/".
    void scene(const Message& m, const char* verb);
    void record(const Message& m);
    void mapped(const Message& m, const InputMap::Bindings& bindings);

    void play(const ArboEvent* event);
    void unfit(const Message& m, const QString& why);
    // The note binding of a path text, by the input map's rules; the unbound
    // binding, with the message logged as unfit, for a text that is no path.
    InputBinding noteAt(const Message& m, const char* text);

    const OscInput& mInput;
    RfidMap mTags;
    // A controller's scaled event, as InputBinding::control() writes it.
    ArboEvent mScratch;

    ThrottledWarning mMalformed{
        "%1 more malformed OSC packets were discarded (warnings suppressed)"};
    ThrottledWarning mUnknownAddress{
        "%1 more OSC messages to unknown addresses were ignored (warnings suppressed)"};
    ThrottledWarning mUnfit{
        "%1 more OSC messages with unusable arguments were ignored (warnings suppressed)"};
    ThrottledWarning mUnknownTag{
        "%1 more OSC tags not in the mapping table were ignored (warnings suppressed)"};
};
