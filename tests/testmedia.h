#pragma once

// Short test clips made with ffmpeg the first time a test asks for them, kept in the build tree
// (KEST_TEST_MEDIA_DIR) and never committed. Each is 2 s long: video 768x432 at 25 frames/s
// with a key frame every 10 frames and no B-frames; audio 48 kHz stereo AAC-LC in ADTS.

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QVector>

#ifndef KEST_TEST_MEDIA_DIR
#define KEST_TEST_MEDIA_DIR ""
#endif

namespace TestMedia {

enum Kind { H264, H265, Aac };

constexpr int kWidth = 768;
constexpr int kHeight = 432;
constexpr int kFrameRate = 25;
constexpr int kKeyInterval = 10;

inline QString directory()
{
    const QString dir = QStringLiteral(KEST_TEST_MEDIA_DIR);
    return dir.isEmpty() ? QDir::tempPath() + QStringLiteral("/kest-test-media") : dir;
}

inline bool run(const QString &program, const QStringList &args, QByteArray *output, QString *why)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForStarted(10000)) {
        *why = program + QStringLiteral(" is not installed (Debian package ffmpeg)");
        return false;
    }
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        *why = program + QStringLiteral(" failed: ") + QString::fromLocal8Bit(process.readAllStandardError());
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return true;
}

// The clip's path, made when missing; empty with `why` saying what is missing otherwise.
inline QString get(Kind kind, QString *why)
{
    const QString video = QStringLiteral("testsrc2=size=%1x%2:rate=%3").arg(kWidth).arg(kHeight).arg(kFrameRate);
    QString name, encoder;
    QStringList args{"-v", "error", "-y", "-f", "lavfi"};
    switch (kind) {
    case H264:
        name = QStringLiteral("clip.h264");
        encoder = QStringLiteral("libx264");
        args << "-i" << video << "-t" << "2" << "-c:v" << encoder << "-preset" << "ultrafast" << "-tune"
             << "zerolatency" << "-g" << QString::number(kKeyInterval) << "-pix_fmt" << "yuv420p" << "-f" << "h264";
        break;
    case H265:
        name = QStringLiteral("clip.h265");
        encoder = QStringLiteral("libx265");
        args << "-i" << video << "-t" << "2" << "-c:v" << encoder << "-preset" << "ultrafast" << "-x265-params"
             << QStringLiteral("keyint=%1:min-keyint=%1:bframes=0:log-level=error").arg(kKeyInterval) << "-pix_fmt"
             << "yuv420p" << "-f" << "hevc";
        break;
    case Aac:
        name = QStringLiteral("clip.aac");
        encoder = QStringLiteral("aac");
        args << "-i" << "sine=frequency=440:sample_rate=48000" << "-t" << "2" << "-ac" << "2" << "-c:a" << encoder
             << "-b:a" << "96k" << "-f" << "adts";
        break;
    }
    const QString path = directory() + QLatin1Char('/') + name;
    if (QFile::exists(path))
        return path;
    QByteArray encoders;
    if (!run(QStringLiteral("ffmpeg"), {"-hide_banner", "-encoders"}, &encoders, why))
        return {};
    if (!encoders.contains(' ' + encoder.toLatin1() + ' ')) {
        *why = QStringLiteral("ffmpeg has no %1 encoder").arg(encoder);
        return {};
    }
    QDir().mkpath(directory());
    // Made under a private name and renamed, so that parallel tests never see half a file.
    const QString part = path + QStringLiteral(".part-%1").arg(QCoreApplication::applicationPid());
    if (!run(QStringLiteral("ffmpeg"), args << part, nullptr, why))
        return {};
    QFile::rename(part, path);
    QFile::remove(part);
    return path;
}

// A packet as ffprobe's own demuxer and parser cut the file: an independent reference.
struct ProbePacket
{
    qint64 pos = 0;
    int size = 0;
    bool key = false;
};

inline QVector<ProbePacket> probe(const QString &path, QString *why)
{
    QByteArray json;
    if (!run(QStringLiteral("ffprobe"), {"-v", "error", "-show_entries", "packet=pos,size,flags", "-of", "json", path}, &json, why))
        return {};
    QVector<ProbePacket> packets;
    const QJsonArray list = QJsonDocument::fromJson(json).object().value(QStringLiteral("packets")).toArray();
    for (const QJsonValue &v : list) {
        const QJsonObject o = v.toObject();
        packets.append({o.value(QStringLiteral("pos")).toString().toLongLong(), o.value(QStringLiteral("size")).toString().toInt(),
                        o.value(QStringLiteral("flags")).toString().startsWith(QLatin1Char('K'))});
    }
    return packets;
}

} // namespace TestMedia
