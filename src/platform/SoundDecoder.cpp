// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/SoundDecoder.h"

#include <sndfile.h>

#include <algorithm>
#include <cstring>

namespace larimo {

// The file image as libsndfile's virtual I/O sees it: two spans read as one.
struct SoundDecoder::Image {
    std::span<const std::uint8_t> head;
    std::span<const std::uint8_t> body;
    sf_count_t position = 0;

    sf_count_t Length() const { return static_cast<sf_count_t>(head.size() + body.size()); }
};

struct SoundDecoder::Handle {
    struct Closer {
        void operator()(SNDFILE* open) const { sf_close(open); }
    };
    std::unique_ptr<SNDFILE, Closer> file;
};

namespace {

SoundDecoder::Image* AsImage(void* userData);

sf_count_t ImageLength(void* userData)
{
    return AsImage(userData)->Length();
}

sf_count_t ImageSeek(sf_count_t offset, int whence, void* userData)
{
    auto* image = AsImage(userData);
    sf_count_t base = 0;
    switch (whence) {
    case SEEK_SET:
        base = 0;
        break;
    case SEEK_CUR:
        base = image->position;
        break;
    case SEEK_END:
        base = image->Length();
        break;
    default:
        return -1;
    }
    const sf_count_t target = base + offset;
    if (target < 0)
        return -1;
    image->position = target;
    return target;
}

sf_count_t ImageRead(void* destination, sf_count_t count, void* userData)
{
    auto* image = AsImage(userData);
    if (count <= 0 || image->position >= image->Length())
        return 0;
    auto* out = static_cast<std::uint8_t*>(destination);
    sf_count_t done = 0;
    while (done < count && image->position < image->Length()) {
        const auto headSize = static_cast<sf_count_t>(image->head.size());
        const bool inHead = image->position < headSize;
        const auto part = inHead ? image->head : image->body;
        const sf_count_t offset = inHead ? image->position : image->position - headSize;
        const sf_count_t n = std::min(count - done, static_cast<sf_count_t>(part.size()) - offset);
        std::memcpy(out + done, part.data() + offset, static_cast<std::size_t>(n));
        done += n;
        image->position += n;
    }
    return done;
}

sf_count_t ImageWrite(const void*, sf_count_t, void*)
{
    return 0;
}

sf_count_t ImageTell(void* userData)
{
    return AsImage(userData)->position;
}

SoundDecoder::Image* AsImage(void* userData)
{
    return static_cast<SoundDecoder::Image*>(userData);
}

} // namespace

SoundDecoder::SoundDecoder() = default;

SoundDecoder::~SoundDecoder() = default;

void SoundDecoder::Close()
{
    m_handle.reset();
    m_image.reset();
    m_channels = 0;
    m_sampleRate = 0;
    m_frames = 0;
}

bool SoundDecoder::Open(std::span<const std::uint8_t> head, std::span<const std::uint8_t> body)
{
    Close();
    m_openError.clear();
    m_image = std::make_unique<Image>(Image{head, body, 0});

    SF_VIRTUAL_IO io{};
    io.get_filelen = &ImageLength;
    io.seek = &ImageSeek;
    io.read = &ImageRead;
    io.write = &ImageWrite;
    io.tell = &ImageTell;

    SF_INFO info{};
    SNDFILE* file = sf_open_virtual(&io, SFM_READ, &info, m_image.get());
    if (!file) {
        m_openError = sf_strerror(nullptr);
        m_image.reset();
        return false;
    }
    m_handle = std::make_unique<Handle>();
    m_handle->file.reset(file);
    if (info.channels <= 0 || info.samplerate <= 0) {
        m_openError = "the file announces no channels or no sample rate";
        Close();
        return false;
    }
    m_channels = info.channels;
    m_sampleRate = info.samplerate;
    m_frames = info.frames;
    return true;
}

std::int64_t SoundDecoder::ReadFloat(float* destination, std::int64_t frames)
{
    if (!m_handle || frames <= 0)
        return 0;
    const sf_count_t done = sf_readf_float(m_handle->file.get(), destination, frames);
    if (done <= 0)
        return sf_error(m_handle->file.get()) != SF_ERR_NO_ERROR ? -1 : 0;
    return done;
}

std::string SoundDecoder::ErrorText() const
{
    if (m_handle)
        return sf_strerror(m_handle->file.get());
    return m_openError;
}

} // namespace larimo
