#include "ndi/kestndisend.h"

#include "json.h"
#include "kesthi.h"
#include "ndi/ndiruntime.h"
#include "nodelog.h"
#include "packetqueue.h"
#include "registration.h"

#include <QMetaMethod>
#include <QThread>
#include <QTimer>

namespace {

const int registered = Kest::registerClass<KestNDISend>();

constexpr int kTypeId = 5;
constexpr qint64 kCreateSpacingUs = 1000000; // between sender creations of the whole process
constexpr int kStatusIntervalMs = 500;
constexpr qint64 kNdiUnitsPerUs = 10;        // NDI times count 100 ns
constexpr qint64 kVideoLeadNdi = 100000;     // 10 ms in NDI units
constexpr int kMainMinWidth = 640;           // wider than this: the main stream
constexpr int kDefaultFrameRate = 30;
constexpr float kPictureAspect = 16.0f / 9.0f;
constexpr int kHeaderBytes = NDIlib_compressed_packet_version_0;

// Receivers offer the unit's web page as the source's control page; the runtime fills in %IP%.
const char kCapabilities[] = "<ndi_capabilities web_control=\"http://%IP%\"/>";

const QString kNameKey = QStringLiteral("name");
const QString kGroupKey = QStringLiteral("group");
const QString kConfigKey = QStringLiteral("config");

// The configuration file's top-level object as compact JSON; "{}" when the file is missing or
// holds something else.
QByteArray configText(const QString &path)
{
    const QVariant config = Json::loadFile(path);
    if (config.userType() != QMetaType::QVariantMap)
        return QByteArrayLiteral("{}");
    return Json::encode(config, false).toUtf8();
}

const uint8_t *bytes(const void *data)
{
    return static_cast<const uint8_t *>(data);
}

// The drain slots, found once: invoking a slot by name looks it up and allocates on every call.
QMetaMethod slotNamed(const char *signature)
{
    return KestNDISend::staticMetaObject.method(KestNDISend::staticMetaObject.indexOfSlot(signature));
}

QVariantMap tallyMap(const NDIlib_tally_t &tally)
{
    return {{QStringLiteral("program"), tally.on_program}, {QStringLiteral("preview"), tally.on_preview}};
}

} // namespace

std::atomic<qint64> KestNDISend::lastTm{0};

KestNDISend::KestNDISend(QObject *parent) : KestObject(parent), timer(new QTimer(this))
{
    typeName = QStringLiteral("NDI");
    typeId = kTypeId;
    mainStream.frame.FourCC = NDIlib_FourCC_video_type_max;
    subStream.frame.FourCC = NDIlib_FourCC_video_type_max;
    audioFrame.FourCC = NDIlib_FourCC_audio_type_max;
    createSettings.clock_video = true;
    createSettings.clock_audio = true;

    data[kNameKey] = QStringLiteral("NDI Test");
    data[kGroupKey] = QString();
    data[kConfigKey] = QStringLiteral("/kest/config/ndi.json");

    const NdiRuntime &runtime = NdiRuntime::instance();
    if (runtime.isAvailable()) {
        ndi = &runtime.functions();
        ndi->initialize();
    }
    connect(timer, &QTimer::timeout, this, &KestNDISend::onTimer);
}

// Deliberately leaves the NDI sender alone: the host calls onStop, which destroys it, first.
KestNDISend::~KestNDISend() = default;

void KestNDISend::onSetData(QVariantMap)
{
    NdiRuntime::instance().reportProblemOnce(this);
    if (!ndi)
        return;

    // NDI senders created in quick succession are spaced a second apart, across all instances;
    // blocking the caller here is deliberate.
    qint64 now = 0;
    KestHi::getPTS(&now, false);
    if (now - lastTm.load() < kCreateSpacingUs)
        QThread::usleep(kCreateSpacingUs);
    lastTm = now;

    destroySender();

    nameBytes = data[kNameKey].toString().toLatin1();
    const QString group = data[kGroupKey].toString();
    groupBytes = group.toUtf8();
    createSettings.p_ndi_name = nameBytes.constData();
    createSettings.p_groups = group.isEmpty() ? nullptr : groupBytes.constData();
    // Frames go out as they arrive: the encoders already pace them.
    createSettings.clock_video = false;
    createSettings.clock_audio = false;

    const QByteArray config = configText(data[kConfigKey].toString());
    sender = ndi->send_create_v2 ? ndi->send_create_v2(&createSettings, config.constData())
                                 : ndi->send_create(&createSettings);
    if (!sender) {
        nodeLog(this) << "create send failed";
        return;
    }
    QByteArray capabilities(kCapabilities);
    NDIlib_metadata_frame_t metadata{};
    metadata.length = 0;
    metadata.timecode = NDIlib_send_timecode_synthesize;
    metadata.p_data = capabilities.data();
    ndi->send_add_connection_metadata(sender, &metadata);
    nodeLog(this) << "NDI create";
}

void KestNDISend::onStart()
{
    if (!sender)
        onSetData(data);
    if (ndi)
        timer->start(kStatusIntervalMs);
}

void KestNDISend::onStop()
{
    destroySender();
    timer->stop();
}

void KestNDISend::destroySender()
{
    if (!sender)
        return;
    ndi->send_destroy(sender);
    sender = nullptr;
}

// --- video ---------------------------------------------------------------------------------

void KestNDISend::onNewInfoV(StreamInfo info)
{
    const int width = info.params.value(QStringLiteral("width")).toInt();
    const bool isMain = width > kMainMinWidth
        && (mainStream.frame.FourCC == NDIlib_FourCC_video_type_max || info.source == mainStream.encoder);
    VideoStream &stream = isMain ? mainStream : subStream;

    stream.encoder = info.source;
    // Only encoders take key-frame requests. Their class is the host's, so it is recognised by
    // name and asked by name: that needs nothing of the host but the meta-object.
    stream.encoderToAsk = info.source && info.source->inherits("KestEncodeV") ? info.source : nullptr;
    if (info.codec == KestCodec::H264) {
        stream.frame.FourCC = isMain ? NDIlib_FourCC_video_type_ex_H264_highest_bandwidth
                                     : NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth;
        stream.header.fourCC = NDIlib_compressed_FourCC_type_H264;
    } else if (info.codec == KestCodec::H265) {
        stream.frame.FourCC = isMain ? NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth
                                     : NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth;
        stream.header.fourCC = NDIlib_compressed_FourCC_type_HEVC;
    }
    stream.header.version = kHeaderBytes;
    stream.extra = info.params.value(QStringLiteral("extradata")).toByteArray();
    stream.frame.xres = width;
    stream.frame.yres = info.params.value(QStringLiteral("height")).toInt();
    const auto rate = info.params.constFind(QStringLiteral("framerate"));
    stream.frame.frame_rate_N = rate == info.params.constEnd() ? kDefaultFrameRate : rate->toInt();
    stream.frame.frame_rate_D = 1;
    stream.frame.picture_aspect_ratio = kPictureAspect;
    stream.frame.frame_format_type = NDIlib_frame_format_type_progressive;

    // Deliberate asymmetry: an "ntsc" description rescales the MAIN stream's rate to N*1000/1001,
    // also when it describes the sub stream, whose own rate stays whole. Receivers of the unit
    // rely on the main stream carrying the exact rate; the sub stream is only a preview.
    if (info.params.value(QStringLiteral("ntsc")).toBool()) {
        mainStream.frame.frame_rate_N *= 1000;
        mainStream.frame.frame_rate_D = 1001;
    }
}

void KestNDISend::requestKeyFrame(VideoStream &stream, const Packet &pkt, const char *logText)
{
    // Asked for every packet, key frames too; only a non-key frame makes the encoder act, so it
    // hears the request once per frame while the runtime keeps asking.
    if (!ndi->send_is_keyframe_required || !ndi->send_is_keyframe_required(sender, &stream.frame) || pkt.frameType == 0)
        return;
    if (stream.encoderToAsk)
        QMetaObject::invokeMethod(stream.encoderToAsk, "idr", Qt::DirectConnection);
    nodeLog(this) << logText;
}

void KestNDISend::onNewPacketV(Packet pkt)
{
    if (mainStream.frame.FourCC == NDIlib_FourCC_video_type_max || !sender)
        return;
    if (pkt.source == mainStream.encoder)
        requestKeyFrame(mainStream, pkt, "need IDR main");
    else if (pkt.source == subStream.encoder)
        requestKeyFrame(subStream, pkt, "need IDR sub");
    // Queued when the host delivers from another thread, a direct call otherwise.
    static const QMetaMethod sendVSlot = slotNamed("sendV()");
    if (bufferPacketV(pkt))
        sendVSlot.invoke(this, Qt::AutoConnection);
}

void KestNDISend::sendV()
{
    Packet pkt;
    while (takePacket(lockV, packetsV, pkt)) {
        VideoStream *stream = pkt.source == mainStream.encoder ? &mainStream
                            : pkt.source == subStream.encoder  ? &subStream
                                                               : nullptr;
        if (!stream || !sender || !ndi->send_send_video_scatter || pkt.len < 0 || (!pkt.data && pkt.len > 0))
            continue;
        const qint64 t = pkt.pts * kNdiUnitsPerUs - kVideoLeadNdi; // 10 ms early: receivers buffer less
        const bool key = pkt.frameType == 0;
        stream->frame.timecode = t;
        stream->frame.timestamp = t;
        NDIlib_compressed_packet_t &header = stream->header;
        header.version = kHeaderBytes;
        header.pts = t;
        header.dts = t;
        header.flags = key ? NDIlib_compressed_packet_flags_keyframe : NDIlib_compressed_packet_flags_none;
        header.data_size = uint32_t(pkt.len);
        header.extra_data_size = key ? uint32_t(stream->extra.size()) : 0;
        // No copy: the runtime reads the header, the packet's own bytes and the parameter sets.
        stream->blocks[0] = bytes(&header);
        stream->sizes[0] = kHeaderBytes;
        stream->blocks[1] = bytes(pkt.data);
        stream->sizes[1] = pkt.len;
        stream->blocks[2] = key ? bytes(stream->extra.constData()) : nullptr;
        stream->sizes[2] = key ? stream->extra.size() : 0;
        stream->blocks[3] = nullptr;
        stream->sizes[3] = 0;
        const NDIlib_frame_scatter_t scatter{stream->blocks, stream->sizes};
        ndi->send_send_video_scatter(sender, &stream->frame, &scatter);
    }
}

// --- audio ---------------------------------------------------------------------------------

void KestNDISend::onNewInfoA(StreamInfo info)
{
    if (info.codec != KestCodec::AAC)
        return;
    audioHeader.fourCC = NDIlib_compressed_FourCC_type_AAC;
    audioHeader.version = kHeaderBytes;
    audioHeader.flags = NDIlib_compressed_packet_flags_keyframe; // every AAC frame decodes on its own
    audioExtra = info.params.value(QStringLiteral("extradata")).toByteArray();
    audioBlocks[0] = bytes(&audioHeader);
    audioSizes[0] = kHeaderBytes;
    audioBlocks[2] = bytes(audioExtra.constData());
    audioSizes[2] = audioExtra.size();
    audioBlocks[3] = nullptr;
    audioSizes[3] = 0;
    audioFrame.sample_rate = info.params.value(QStringLiteral("samplerate")).toInt();
    audioFrame.no_channels = info.params.value(QStringLiteral("channels")).toInt();
    audioFrame.no_samples = info.params.value(QStringLiteral("frame_size")).toInt();
    audioFrame.FourCC = NDIlib_FourCC_audio_type_ex_AAC; // last: marks the stream as described
}

void KestNDISend::onNewPacketA(Packet pkt)
{
    if (audioFrame.FourCC == NDIlib_FourCC_audio_type_max || !sender)
        return;
    static const QMetaMethod sendASlot = slotNamed("sendA()");
    if (bufferPacketA(pkt))
        sendASlot.invoke(this, Qt::AutoConnection);
}

void KestNDISend::sendA()
{
    Packet pkt;
    while (takePacket(lockA, packetsA, pkt)) {
        if (!sender || !ndi->send_send_audio_scatter || pkt.len < 0 || (!pkt.data && pkt.len > 0))
            continue;
        const qint64 t = pkt.pts * kNdiUnitsPerUs; // audio is not shifted
        audioFrame.timecode = t;
        audioFrame.timestamp = t;
        audioHeader.pts = t;
        audioHeader.dts = t;
        audioHeader.data_size = uint32_t(pkt.len);
        audioHeader.extra_data_size = uint32_t(audioExtra.size());
        audioBlocks[1] = bytes(pkt.data);
        audioSizes[1] = pkt.len;
        const NDIlib_frame_scatter_t scatter{audioBlocks, audioSizes};
        ndi->send_send_audio_scatter(sender, &audioFrame, &scatter);
    }
}

// --- tally ---------------------------------------------------------------------------------

NDIlib_tally_t KestNDISend::readTally()
{
    NDIlib_tally_t tally{};
    if (sender)
        ndi->send_get_tally(sender, &tally, 0); // a poll: never waits
    return tally;
}

QVariant KestNDISend::getTally()
{
    return tallyMap(readTally());
}

void KestNDISend::onTimer()
{
    if (!sender)
        return;
    const NDIlib_tally_t tally = readTally();
    if (tally.on_program == lastProgram && tally.on_preview == lastPreview)
        return;
    lastProgram = tally.on_program;
    lastPreview = tally.on_preview;
    sendEvent(QStringLiteral("tally"), tallyMap(tally));
}
