#include "midi/midiportconnector.h"

#include "midi/jackserverwatch.h"

#include <alsa/asoundlib.h>
#include <jack/jack.h>
#include <jack/midiport.h>

#include <cerrno>
#include <unistd.h>

MidiPortConnector::~MidiPortConnector() = default;

QString MidiPortConnector::Port::firstMatch(const QStringList& texts) const
{
    for (const QString& text : texts) {
        bool matches = name.contains(text, Qt::CaseInsensitive);
        for (const QString& alias : aliases) {
            matches = matches || alias.contains(text, Qt::CaseInsensitive);
        }
        if (matches) {
            return text;
        }
    }
    return QString();
}

namespace {

int ownPid()
{
    return int(getpid());
}

class JackConnector : public MidiPortConnector
{
public:
    bool open(const QString& clientName, QString& error)
    {
        if (!mWatch.open(clientName, error)) {
            return false;
        }
        mClient = mWatch.client();
        return true;
    }

    bool findOwnInput(const QString& clientName, const QString& portName) override
    {
        mOwn.clear();
        mOwnClientName = clientName;
        const char** ports =
            jack_get_ports(mClient, nullptr, JACK_DEFAULT_MIDI_TYPE, JackPortIsInput);
        for (int i = 0; ports && ports[i]; ++i) {
            const QString name = QString::fromUtf8(ports[i]);
            const int colon = name.indexOf(QLatin1Char(':'));
            const QString client = name.left(colon);
            if (name.mid(colon + 1) != portName || !client.startsWith(clientName)) {
                continue;
            }
            // Another instance of the program may have a port of the same
            // name; ours belongs to this process. A server that does not
            // know its clients' processes (0) leaves the name alone to tell.
            const int pid = jack_get_client_pid(client.toUtf8().constData());
            if (pid == ownPid() || (pid <= 0 && mOwn.isEmpty())) {
                mOwn = name;
            }
        }
        jack_free(ports);
        return !mOwn.isEmpty();
    }

    QString ownInput() const override { return mOwn; }

    std::vector<Port> sources() override
    {
        std::vector<Port> result;
        if (systemGone()) {
            return result;
        }
        const char** ports =
            jack_get_ports(mClient, nullptr, JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput);
        QByteArray alias1(jack_port_name_size(), '\0');
        QByteArray alias2(jack_port_name_size(), '\0');
        for (int i = 0; ports && ports[i]; ++i) {
            Port port;
            port.name = QString::fromUtf8(ports[i]);
            const QString client = port.name.left(port.name.indexOf(QLatin1Char(':')));
            // Our own MIDI output, say, fed back into the input would play
            // every note twice over, for ever.
            // A server that does not know its clients' processes (0) leaves
            // only the name to tell.
            const int pid = jack_get_client_pid(client.toUtf8().constData());
            port.own = !mOwnClientName.isEmpty() && client.startsWith(mOwnClientName) &&
                       (pid == ownPid() || pid <= 0);
            // Hardware ports carry the device's name in their aliases
            // ("system:midi_capture_1" is also "alsa_pcm:nanoKEY2/midi_capture_1").
            if (jack_port_t* handle = jack_port_by_name(mClient, ports[i])) {
                char* aliases[2] = {alias1.data(), alias2.data()};
                const int count = jack_port_get_aliases(handle, aliases);
                for (int a = 0; a < count && a < 2; ++a) {
                    port.aliases << QString::fromUtf8(aliases[a]);
                }
            }
            result.push_back(port);
        }
        jack_free(ports);
        return result;
    }

    bool connectToOwn(const Port& source, QString& error) override
    {
        const int result =
            jack_connect(mClient, source.name.toUtf8().constData(), mOwn.toUtf8().constData());
        if (result == 0 || result == EEXIST) {
            return true;
        }
        error = QStringLiteral("JACK refused the connection (%1)").arg(result);
        return false;
    }

    bool systemGone() const override { return mWatch.gone(); }

private:
    JackServerWatch mWatch;
    jack_client_t* mClient = nullptr;
    QString mOwnClientName;
    QString mOwn;
};

class AlsaConnector : public MidiPortConnector
{
public:
    ~AlsaConnector() override
    {
        if (mSeq) {
            snd_seq_close(mSeq);
        }
    }

    bool open(const QString& clientName, QString& error)
    {
        const int result = snd_seq_open(&mSeq, "default", SND_SEQ_OPEN_DUPLEX, 0);
        if (result < 0) {
            mSeq = nullptr;
            error = QStringLiteral("no ALSA sequencer (%1)")
                        .arg(QString::fromUtf8(snd_strerror(result)));
            return false;
        }
        snd_seq_set_client_name(mSeq, clientName.toUtf8().constData());
        return true;
    }

    bool findOwnInput(const QString& clientName, const QString& portName) override
    {
        mOwnFound = false;
        const unsigned wanted = SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;
        forEachPort([&](snd_seq_client_info_t* client, snd_seq_port_info_t* port) {
            if (!mOwnFound && isOwnClient(client, clientName) &&
                QString::fromUtf8(snd_seq_port_info_get_name(port)) == portName &&
                (snd_seq_port_info_get_capability(port) & wanted) == wanted) {
                mOwnAddress = *snd_seq_port_info_get_addr(port);
                mOwnName = nameOf(client, port);
                mOwnFound = true;
            }
        });
        mOwnClientName = clientName;
        return mOwnFound;
    }

    QString ownInput() const override { return mOwnFound ? mOwnName : QString(); }

    std::vector<Port> sources() override
    {
        std::vector<Port> result;
        const unsigned wanted = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
        forEachPort([&](snd_seq_client_info_t* client, snd_seq_port_info_t* port) {
            const unsigned caps = snd_seq_port_info_get_capability(port);
            if ((caps & wanted) != wanted || (caps & SND_SEQ_PORT_CAP_NO_EXPORT) ||
                snd_seq_client_info_get_client(client) == SND_SEQ_CLIENT_SYSTEM) {
                return;
            }
            Port source;
            source.name = nameOf(client, port);
            // The numbers, as aconnect -l shows them ("20:0").
            source.aliases << QStringLiteral("%1:%2")
                                  .arg(snd_seq_port_info_get_client(port))
                                  .arg(snd_seq_port_info_get_port(port));
            source.own = isOwnClient(client, mOwnClientName);
            result.push_back(source);
        });
        return result;
    }

    bool connectToOwn(const Port& source, QString& error) override
    {
        snd_seq_addr_t sender{};
        if (!mOwnFound || snd_seq_parse_address(mSeq, &sender,
                                                source.aliases.value(0).toUtf8().constData()) < 0) {
            error = QStringLiteral("no such port");
            return false;
        }
        snd_seq_port_subscribe_t* subscription = nullptr;
        snd_seq_port_subscribe_alloca(&subscription);
        snd_seq_port_subscribe_set_sender(subscription, &sender);
        snd_seq_port_subscribe_set_dest(subscription, &mOwnAddress);
        if (snd_seq_get_port_subscription(mSeq, subscription) == 0) {
            return true; // already connected
        }
        const int result = snd_seq_subscribe_port(mSeq, subscription);
        if (result < 0) {
            error = QString::fromUtf8(snd_strerror(result));
            return false;
        }
        return true;
    }

    bool systemGone() const override { return false; }

private:
    template <typename Visit> void forEachPort(Visit visit)
    {
        snd_seq_client_info_t* client = nullptr;
        snd_seq_port_info_t* port = nullptr;
        snd_seq_client_info_alloca(&client);
        snd_seq_port_info_alloca(&port);
        snd_seq_client_info_set_client(client, -1);
        while (snd_seq_query_next_client(mSeq, client) >= 0) {
            snd_seq_port_info_set_client(port, snd_seq_client_info_get_client(client));
            snd_seq_port_info_set_port(port, -1);
            while (snd_seq_query_next_port(mSeq, port) >= 0) {
                visit(client, port);
            }
        }
    }

    static QString nameOf(snd_seq_client_info_t* client, snd_seq_port_info_t* port)
    {
        return QString::fromUtf8(snd_seq_client_info_get_name(client)) + QLatin1Char(':') +
               QString::fromUtf8(snd_seq_port_info_get_name(port));
    }

    static bool isOwnClient(snd_seq_client_info_t* client, const QString& clientName)
    {
        // Older kernels do not tell a client's process (-1): then the name
        // alone tells.
        const int pid = snd_seq_client_info_get_pid(client);
        return !clientName.isEmpty() &&
               QString::fromUtf8(snd_seq_client_info_get_name(client)).startsWith(clientName) &&
               (pid == ownPid() || pid <= 0);
    }

    snd_seq_t* mSeq = nullptr;
    snd_seq_addr_t mOwnAddress{};
    QString mOwnName;
    QString mOwnClientName;
    bool mOwnFound = false;
};

} // namespace

std::unique_ptr<MidiPortConnector> MidiPortConnector::make(bool jack, const QString& clientName,
                                                           QString& error)
{
    if (jack) {
        auto connector = std::make_unique<JackConnector>();
        if (!connector->open(clientName, error)) {
            return nullptr;
        }
        return connector;
    }
    auto connector = std::make_unique<AlsaConnector>();
    if (!connector->open(clientName, error)) {
        return nullptr;
    }
    return connector;
}
