#pragma once

#include <QAbstractListModel>
#include <QStringList>

// The newest diagnostics lines, one row each, at most `limit` of them: the
// oldest rows go as new ones come. A list view over it lays out only the
// rows it shows, so taking in a frame's worth of a flood costs the same
// whether the window shows them or not (a text box lays out every line it
// is given). GUI thread only.
class DiagnosticsLineModel : public QAbstractListModel
{
    Q_OBJECT
public:
    explicit DiagnosticsLineModel(int limit, QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role) const override;

    // Adds `lines` at the end, after `skipped` lines that came before them
    // but are not to be shown at all.
    void add(const QStringList& lines, qint64 skipped);

    int limit() const { return mLimit; }
    const QStringList& lines() const { return mLines; }
    // Lines received that are no longer (or were never) rows.
    qint64 droppedCount() const { return mDropped; }

private:
    const int mLimit;
    QStringList mLines;
    qint64 mDropped = 0;
};
