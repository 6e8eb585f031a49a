#pragma once

// Short test clips made with ffmpeg the first time a test asks for them, kept in the build tree
// (KEST_TEST_MEDIA_DIR) and never committed. Each is 2 s long: video 768x432 at 25 frames/s
// with a key frame every 10 frames and no B-frames; audio 48 kHz stereo AAC-LC in ADTS.
// ffprobe, from the same package, is the independent reference for what the clips hold.

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

namespace TestMedia {

enum Kind { H264, H265, Aac };

constexpr int kWidth = 768;
constexpr int kHeight = 432;
constexpr int kFrameRate = 25;
constexpr int kKeyInterval = 10;

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Runs an ffmpeg tool; false with `errors` saying why when it cannot. `errors` also receives
// what a successful run wrote to stderr.
inline bool run(const QString &program, const QStringList &args, QByteArray *output, QString *errors)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForStarted(10000)) {
        *errors = program + QStringLiteral(" is not installed (Debian package ffmpeg)");
        return false;
    }
    const bool finished = process.waitForFinished(120000);
    *errors = QString::fromLocal8Bit(process.readAllStandardError()).trimmed();
    if (!finished || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        *errors = program + QStringLiteral(" failed: ") + *errors;
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
    const QString gop = QString::number(kKeyInterval);
    const QStringList common{"-v", "error", "-y", "-f", "lavfi", "-t", "2", "-i"};
    const struct
    {
        const char *name;
        const char *encoder;
        QStringList args;
    } clips[] = {
        {"clip.h264", "libx264", {video, "-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", gop,
                                  "-pix_fmt", "yuv420p", "-f", "h264"}},
        {"clip.h265", "libx265", {video, "-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                                  QStringLiteral("keyint=%1:min-keyint=%1:bframes=0:log-level=error").arg(gop),
                                  "-pix_fmt", "yuv420p", "-f", "hevc"}},
        {"clip.aac", "aac", {"sine=frequency=440:sample_rate=48000", "-ac", "2", "-c:a", "aac", "-b:a", "96k", "-f", "adts"}},
    };
    const auto &clip = clips[kind];
    const QString path = QStringLiteral(KEST_TEST_MEDIA_DIR "/") + QLatin1String(clip.name);
    if (QFile::exists(path))
        return path;
    QByteArray encoders;
    if (!run(QStringLiteral("ffmpeg"), {"-hide_banner", "-encoders"}, &encoders, why))
        return {};
    if (!encoders.contains(QByteArray(" ") + clip.encoder + ' ')) {
        *why = QStringLiteral("ffmpeg has no %1 encoder").arg(QLatin1String(clip.encoder));
        return {};
    }
    QDir().mkpath(QStringLiteral(KEST_TEST_MEDIA_DIR));
    // Made under a private name and renamed, so that parallel tests never see half a file.
    const QString part = path + QStringLiteral(".part-%1").arg(QCoreApplication::applicationPid());
    if (!run(QStringLiteral("ffmpeg"), common + clip.args + QStringList{part}, nullptr, why))
        return {};
    QFile::rename(part, path);
    QFile::remove(part);
    return path;
}

// A packet as ffprobe's own demuxer and parser cut the file.
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
    for (const QJsonValue &v : QJsonDocument::fromJson(json).object().value(QStringLiteral("packets")).toArray()) {
        const QJsonObject o = v.toObject();
        packets.append({o.value(QStringLiteral("pos")).toString().toLongLong(), o.value(QStringLiteral("size")).toString().toInt(),
                        o.value(QStringLiteral("flags")).toString().startsWith(QLatin1Char('K'))});
    }
    return packets;
}

// "codec frames" of the file's first stream when ffprobe decodes every frame without a
// complaint; otherwise what ffprobe said.
inline QString decode(const QString &path)
{
    QByteArray json;
    QString errors;
    if (!run(QStringLiteral("ffprobe"),
             {"-v", "error", "-count_frames", "-show_entries", "stream=codec_name,nb_read_frames", "-of", "json", path}, &json,
             &errors)
        || !errors.isEmpty())
        return errors;
    const QJsonObject stream = QJsonDocument::fromJson(json).object().value(QStringLiteral("streams")).toArray().first().toObject();
    return stream.value(QStringLiteral("codec_name")).toString() + QLatin1Char(' ')
         + stream.value(QStringLiteral("nb_read_frames")).toString();
}

} // namespace TestMedia
