#include "midi/jackserverwatch.h"

#include <jack/jack.h>

JackServerWatch::~JackServerWatch()
{
    if (mClient && !gone()) {
        jack_client_close(mClient);
    }
}

bool JackServerWatch::open(const QString& name, QString& error)
{
    jack_status_t status{};
    mClient = jack_client_open(name.toUtf8().constData(), JackNoStartServer, &status);
    if (!mClient) {
        error = QStringLiteral("no JACK server (status 0x%1)").arg(int(status), 0, 16);
        return false;
    }
    jack_on_shutdown(
        mClient,
        [](void* self) {
            static_cast<JackServerWatch*>(self)->mGone.store(true, std::memory_order_release);
        },
        this);
    return true;
}
