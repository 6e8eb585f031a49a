#pragma once

// Short test clips made with ffmpeg the first time a test asks for them, kept in the build tree
// (KEST_TEST_MEDIA_DIR) and never committed. Each is 2 s long: video 768x432 at 25 frames/s
// with a key frame every 10 frames and no B-frames; audio 48 kHz stereo AAC-LC in ADTS.

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStringList>

namespace TestMedia {

enum Kind { H264, H265, Aac };

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The clip's path, made when missing; empty with `why` saying what is missing otherwise.
inline QString get(Kind kind, QString *why)
{
    const QStringList video{"testsrc2=size=768x432:rate=25", "-pix_fmt", "yuv420p", "-c:v"};
    const QStringList args[] = {
        video + QStringList{"libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "10", "-f", "h264"},
        video + QStringList{"libx265", "-preset", "ultrafast", "-x265-params", "keyint=10:min-keyint=10:bframes=0:log-level=error", "-f", "hevc"},
        {"sine=frequency=440:sample_rate=48000", "-ac", "2", "-c:a", "aac", "-b:a", "96k", "-f", "adts"}};
    const QString path = QStringLiteral(KEST_TEST_MEDIA_DIR "/clip.") + QStringList{"h264", "h265", "aac"}.at(kind);
    if (QFile::exists(path))
        return path;
    QDir().mkpath(QStringLiteral(KEST_TEST_MEDIA_DIR));
    // Made under a private name and renamed, so that parallel tests never see half a file.
    const QString part = path + QStringLiteral(".part-%1").arg(QCoreApplication::applicationPid());
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), QStringList{"-v", "error", "-y", "-f", "lavfi", "-t", "2", "-i"} + args[kind] + QStringList{part});
    if (!ffmpeg.waitForFinished(120000) || ffmpeg.exitStatus() != QProcess::NormalExit || ffmpeg.exitCode() != 0) {
        *why = QStringLiteral("ffmpeg (Debian package ffmpeg) failed: %1 %2").arg(ffmpeg.errorString(), ffmpeg.readAllStandardError());
        QFile::remove(part);
        return {};
    }
    QFile::rename(part, path);
    QFile::remove(part);
    return path;
}

} // namespace TestMedia
