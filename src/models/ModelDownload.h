#pragma once

#include "models/DownloadError.h"

#include <QObject>
#include <QString>
#include <functional>
#include <optional>

namespace vocari {

// One running installation of a model into a folder. It reports one overall fraction while
// it runs and ends exactly once; after a failure or a cancel the folder is as it was before.
class ModelDownload : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    // Begins the work; every outcome, even an immediate failure, is reported later through
    // finished().
    virtual void start() = 0;
    // Stops every transfer and cleans up; finished() follows with a Cancelled error. Does
    // nothing once the download has ended.
    virtual void cancel() = 0;
    // After finished(): none when the model is in place.
    virtual std::optional<DownloadError> error() const = 0;

signals:
    // The fraction done, from 0 to 1. It may fall back when a file has to start over.
    void progressed(double fraction);
    void finished();
};

// Makes the download of a hub repository into a model folder.
using ModelDownloadFactory =
    std::function<ModelDownload *(const QString &repository, const QString &folder)>;

} // namespace vocari
