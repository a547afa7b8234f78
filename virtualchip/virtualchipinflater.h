#pragma once

#include <QByteArray>

#include <memory>

struct z_stream_s;

// Inflates one zlib stream (header + deflate data) that arrives in consecutive slices, as the
// flash loader's compressed write receives it: each slice yields the bytes it completes.
class VirtualChipInflater
{
public:
    enum class Result {
        Ok,         // the slice was taken; more may follow
        Finished,   // the slice ended the stream
        Corrupt,    // not a valid stream
        TooMuchData // more than allowed, or bytes after the end of the stream
    };

    VirtualChipInflater();
    ~VirtualChipInflater();
    VirtualChipInflater(const VirtualChipInflater &) = delete;
    VirtualChipInflater &operator=(const VirtualChipInflater &) = delete;

    // Starts a new stream.
    void begin();
    // Takes the next slice and appends what it inflates to `out`, at most `limit` bytes; on a
    // failure nothing is appended. After anything but Ok the stream takes no more slices.
    Result feed(const QByteArray &slice, quint32 limit, QByteArray *out);
    // True once the stream's end was seen.
    bool finished() const { return m_state == Result::Finished; }

private:
    void end();

    std::unique_ptr<z_stream_s> m_stream;
    bool m_open = false;
    Result m_state = Result::Ok;
};
