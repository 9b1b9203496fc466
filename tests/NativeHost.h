#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

// The host as a browser runs it: messages framed by their length, both ways.
class NativeHost
{
public:
    // The host, or a program that starts it (a fake application).
    explicit NativeHost(const QString &program, const QStringList &arguments = {})
    {
        m_process.start(program, arguments);
        if (!m_process.waitForStarted())
            qFatal("the native host did not start");
    }
    ~NativeHost()
    {
        m_process.closeWriteChannel();
        m_process.waitForFinished();
    }

    void send(const QByteArray &message) { m_process.write(frame(message)); }
    static QByteArray frame(const QByteArray &message)
    {
        const quint32 size = quint32(message.size());
        return QByteArray(reinterpret_cast<const char *>(&size), sizeof size) + message;
    }
    QProcess &process() { return m_process; }

    // The next answer; an empty object when the host ended without one.
    QJsonObject answer()
    {
        quint32 size = 0;
        if (!waitFor(sizeof size))
            return {};
        m_process.read(reinterpret_cast<char *>(&size), sizeof size);
        if (!waitFor(size))
            return {};
        return QJsonDocument::fromJson(m_process.read(size)).object();
    }
    QJsonObject ask(const QByteArray &message)
    {
        send(message);
        return answer();
    }

private:
    bool waitFor(qint64 bytes)
    {
        while (m_process.bytesAvailable() < bytes) {
            if (m_process.state() != QProcess::Running && m_process.bytesAvailable() < bytes)
                return false;
            m_process.waitForReadyRead(30000);
        }
        return true;
    }

    QProcess m_process;
};

