#include "virtualchip/virtualchipinflater.h"

#include <zlib.h>

namespace {
constexpr int outputChunk = 16384; // bytes inflated per step
} // namespace

VirtualChipInflater::VirtualChipInflater() : m_stream(std::make_unique<z_stream_s>()) {}

VirtualChipInflater::~VirtualChipInflater()
{
    end();
}

void VirtualChipInflater::end()
{
    if (m_open)
        inflateEnd(m_stream.get());
    m_open = false;
}

void VirtualChipInflater::begin()
{
    end();
    *m_stream = z_stream_s();
    m_open = inflateInit(m_stream.get()) == Z_OK;
    m_state = m_open ? Result::Ok : Result::Corrupt;
}

VirtualChipInflater::Result VirtualChipInflater::feed(const QByteArray &slice, quint32 limit,
                                                      QByteArray *out)
{
    if (m_state == Result::Finished)
        return slice.isEmpty() ? m_state : Result::TooMuchData;
    if (m_state != Result::Ok)
        return m_state;
    const int kept = out->size();
    z_stream_s &stream = *m_stream;
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(slice.constData()));
    stream.avail_in = uInt(slice.size());
    quint32 produced = 0;
    char buffer[outputChunk];
    for (;;) {
        stream.next_out = reinterpret_cast<Bytef *>(buffer);
        stream.avail_out = sizeof buffer;
        const int status = inflate(&stream, Z_NO_FLUSH);
        const quint32 made = quint32(sizeof buffer - stream.avail_out);
        if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) {
            m_state = Result::Corrupt;
            break;
        }
        if (made > limit - produced) {
            // More than the write announced: stop before it is kept.
            m_state = Result::TooMuchData;
            break;
        }
        out->append(buffer, int(made));
        produced += made;
        if (status == Z_STREAM_END) {
            // Bytes after the end of the stream are not part of it.
            m_state = stream.avail_in == 0 ? Result::Finished : Result::TooMuchData;
            break;
        }
        // Z_BUF_ERROR: no progress possible until the next slice.
        if (stream.avail_in == 0 && stream.avail_out != 0)
            break;
        if (status == Z_BUF_ERROR)
            break;
    }
    stream.next_in = nullptr;
    stream.avail_in = 0;
    if (m_state != Result::Ok && m_state != Result::Finished)
        out->truncate(kept);
    if (m_state != Result::Ok)
        end();
    return m_state;
}
