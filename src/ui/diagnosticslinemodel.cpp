#include "ui/diagnosticslinemodel.h"

#include <algorithm>

DiagnosticsLineModel::DiagnosticsLineModel(int limit, QObject* parent)
    : QAbstractListModel(parent), mLimit(limit)
{
}

int DiagnosticsLineModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : mLines.size();
}

QVariant DiagnosticsLineModel::data(const QModelIndex& index, int role) const
{
    if (role != Qt::DisplayRole || !index.isValid() || index.row() >= mLines.size()) {
        return {};
    }
    return mLines.at(index.row());
}

void DiagnosticsLineModel::add(const QStringList& lines, qint64 skipped)
{
    mDropped += skipped;
    // Of the new lines only the last `limit` can be rows.
    const int fresh = std::min(lines.size(), mLimit);
    mDropped += lines.size() - fresh;
    const int leaving = std::max(0, mLines.size() + fresh - mLimit);
    if (leaving > 0) {
        beginRemoveRows(QModelIndex(), 0, leaving - 1);
        mLines.erase(mLines.begin(), mLines.begin() + leaving);
        mDropped += leaving;
        endRemoveRows();
    }
    if (fresh > 0) {
        beginInsertRows(QModelIndex(), mLines.size(), mLines.size() + fresh - 1);
        mLines.append(lines.mid(lines.size() - fresh));
        endInsertRows();
    }
}
