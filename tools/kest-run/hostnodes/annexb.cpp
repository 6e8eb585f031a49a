#include "annexb.h"

namespace AnnexB {

namespace {

const char kStartCode[] = {0, 0, 0, 1};

struct Nal
{
    int start = 0;   // first byte of its start code (a leading zero byte included)
    int payload = 0; // first byte after the start code: the NAL header
    int end = 0;     // one past its last byte, trailing zero bytes excluded
};

QVector<Nal> findNals(const QByteArray &data)
{
    QVector<Nal> nals;
    const auto *p = reinterpret_cast<const unsigned char *>(data.constData());
    const int n = data.size();
    for (int i = 0; i + 2 < n; ++i) {
        if (p[i] != 0 || p[i + 1] != 0 || p[i + 2] != 1)
            continue;
        Nal nal;
        nal.start = i > 0 && p[i - 1] == 0 ? i - 1 : i;
        nal.payload = i + 3;
        if (!nals.isEmpty()) {
            Nal &previous = nals.last();
            previous.end = nal.start;
            while (previous.end > previous.payload && p[previous.end - 1] == 0)
                --previous.end;
        }
        nals.append(nal);
        i += 2;
    }
    if (!nals.isEmpty()) {
        Nal &last = nals.last();
        last.end = n;
        while (last.end > last.payload && p[last.end - 1] == 0)
            --last.end;
    }
    return nals;
}

struct NalInfo
{
    bool vcl = false;
    bool firstSlice = false; // the first slice of a picture
    bool startsUnit = false; // a non-picture NAL that can only open an access unit
    bool key = false;
    bool parameterSet = false;
};

NalInfo describe(const unsigned char *nal, int size, Codec codec)
{
    NalInfo info;
    if (codec == Codec::H264) {
        if (size < 1)
            return info;
        const int type = nal[0] & 0x1f;
        info.vcl = type >= 1 && type <= 5;
        // first_mb_in_slice is ue(v); it is 0 exactly when its first bit is 1.
        info.firstSlice = info.vcl && size > 1 && (nal[1] & 0x80);
        info.startsUnit = type == 6 || type == 7 || type == 8 || type == 9 || (type >= 14 && type <= 18);
        info.key = type == 5;
        info.parameterSet = type == 7 || type == 8;
    } else {
        if (size < 2)
            return info;
        const int type = (nal[0] >> 1) & 0x3f;
        info.vcl = type <= 31;
        info.firstSlice = info.vcl && size > 2 && (nal[2] & 0x80); // first_slice_segment_in_pic_flag
        info.startsUnit = (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) || (type >= 48 && type <= 55);
        info.key = type >= 16 && type <= 23;
        info.parameterSet = type >= 32 && type <= 34;
    }
    return info;
}

} // namespace

Stream split(const QByteArray &data, Codec codec)
{
    Stream stream;
    const QVector<Nal> nals = findNals(data);
    const auto *bytes = reinterpret_cast<const unsigned char *>(data.constData());
    bool pictureSeen = false;     // anywhere before: parameter sets after it are not collected
    bool unitHasPicture = false;
    int unitStart = -1;
    bool unitKey = false;
    const auto close = [&](int end) {
        if (unitStart >= 0 && unitHasPicture)
            stream.units.append({unitStart, end - unitStart, unitKey});
    };
    for (const Nal &nal : nals) {
        const NalInfo info = describe(bytes + nal.payload, nal.end - nal.payload, codec);
        if (unitHasPicture && (info.startsUnit || info.firstSlice)) {
            close(nal.start);
            unitStart = -1;
            unitHasPicture = false;
            unitKey = false;
        }
        if (unitStart < 0)
            unitStart = nal.start;
        unitHasPicture = unitHasPicture || info.vcl;
        unitKey = unitKey || info.key;
        if (info.parameterSet && !pictureSeen) {
            stream.parameterSets.append(kStartCode, sizeof(kStartCode));
            stream.parameterSets.append(data.constData() + nal.payload, nal.end - nal.payload);
        }
        pictureSeen = pictureSeen || info.vcl;
    }
    close(data.size());
    return stream;
}

} // namespace AnnexB
