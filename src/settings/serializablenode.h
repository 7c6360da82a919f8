#pragma once

#include <QJsonObject>
#include <QObject>

// Something that converts itself to and from a JSON object: a whole document
// (SerializableRoot) or a part of one.
class SerializableNode : public QObject
{
    Q_OBJECT
public:
    explicit SerializableNode(QObject* parent = nullptr) : QObject(parent) {}

    // Fill this object from `json`. Keys that are missing or of the wrong type
    // leave the corresponding state unchanged.
    virtual void read(const QJsonObject& json) = 0;
    // Put this object's keys into `json`.
    virtual void write(QJsonObject& json) const = 0;
};
