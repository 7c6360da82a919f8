#pragma once

#include "settings/serializableroot.h"

#include <QHash>
#include <QString>

#include <memory>

class ArboEvent;

// Turns the identifier of an RFID tag into the event a wand should trigger,
// as the user assigned it in "rfid_map.json":
//
//   { "04a1b2c3d4": { "event": 2, "value": -3 },
//     "04a1b2c3d5": { "event": 0, "value": "/3/-5" } }
//
// Tags match without regard to case. The file belongs to the user, who writes
// it by hand: the program never writes it back (saveOnTerm is off from
// construction on), and reading takes whatever the file holds by fixed rules
// instead of rejecting it (see read()).
//
// Threads: the UDP listener reads and queries its map on its own thread. The
// map is not thread-safe; one thread at a time, and init()/read() must not run
// while another thread looks tags up. The object has no signals or slots, so
// it works on any thread whatever its thread affinity.
class RfidMap : public SerializableRoot
{
    Q_OBJECT
public:
    static const QString FILE_NAME; // "rfid_map.json"

    explicit RfidMap(QObject* parent = nullptr);
    ~RfidMap() override;

    using SerializableRoot::init;
    // Loads "rfid_map.json" from the configuration folder, or, when there is
    // none, writes an empty one. False when the file cannot be read or parsed
    // (the map then stays as it was).
    bool init();
    // No tag is assigned out of the box.
    void initWithDefaults() override;

    // Replaces the whole map by the entries of `json`. For each member, in
    // the object's order (Qt orders members by key):
    // - the key, lower-cased, is the tag; a later member whose key differs
    //   only in case replaces the earlier one;
    // - a "value" text that begins with "/" is a note's path: the entry is a
    //   note toggle for that path whatever "event" says, and a path that does
    //   not parse (or has steps that are no primes) skips the member with a
    //   warning;
    // - otherwise the entry is a plain event: type "event" (a number; 0 when
    //   missing or not a number; fractions truncated, numbers beyond the int
    //   range saturated) with value "value" (a number, 0 otherwise, clamped
    //   to the float range). Types outside the known ones are kept; the player
    //   ignores them. A note type without a path, and a value that the type
    //   refuses (ArboEvent::refusal: a base frequency of 0, a volume of
    //   1e30), skip the member with a warning naming the tag.
    void read(const QJsonObject& json) override;
    // The inverse: "event" as a number and "value" as the path text for a
    // note, as a number otherwise, under the lower-case tag.
    void write(QJsonObject& json) const override;

    // The event assigned to the tag (any case), or null when there is none.
    // The pointer stays valid while the map exists and is not re-read.
    const ArboEvent* lookup(const QString& rfid) const;

    int size() const { return mEvents.size(); }

private:
    QHash<QString, std::shared_ptr<const ArboEvent>> mEvents;
};
