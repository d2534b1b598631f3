// The TZif reader. Every read goes through ByteReader, which refuses to move past the end,
// and every count in a header is checked against the limits and the bytes left before the
// reader sizes anything by it, so hostile input costs no more than its own length.
#include "zq/webutil/tzifreader.h"

#include "zq/webkeel/transcode.h"

namespace kiv::zoneinternal {
namespace {

// 25:59:59: beyond any offset ever in use, and what POSIX allows for a TZ string (24:59:59)
// plus the hour a DST offset may add.
constexpr std::int32_t kMaxAbsUtcOffset = 93599;

class ByteReader {
public:
    explicit ByteReader(std::string_view bytes) noexcept : m_bytes(bytes) {}

    std::size_t remaining() const noexcept { return m_bytes.size() - m_nPos; }
    bool skip(std::uint64_t n) noexcept {
        if (n > remaining()) {
            return false;
        }
        m_nPos += static_cast<std::size_t>(n);
        return true;
    }
    bool readBytes(std::size_t n, std::string_view& out) noexcept {
        if (n > remaining()) {
            return false;
        }
        out = m_bytes.substr(m_nPos, n);
        m_nPos += n;
        return true;
    }
    bool readU8(std::uint8_t& n) noexcept {
        if (remaining() < 1) {
            return false;
        }
        n = static_cast<std::uint8_t>(m_bytes[m_nPos++]);
        return true;
    }
    bool readU32(std::uint32_t& n) noexcept {
        std::uint64_t n64 = 0;
        if (!readBigEndian(4, n64)) {
            return false;
        }
        n = static_cast<std::uint32_t>(n64);
        return true;
    }
    // Signed big-endian values of 4 or 8 bytes, two's complement.
    bool readSigned(unsigned nBytes, std::int64_t& n) noexcept {
        std::uint64_t nRaw = 0;
        if (!readBigEndian(nBytes, nRaw)) {
            return false;
        }
        if (nBytes == 4) {
            n = static_cast<std::int32_t>(static_cast<std::uint32_t>(nRaw));
        } else {
            n = static_cast<std::int64_t>(nRaw);
        }
        return true;
    }

private:
    bool readBigEndian(unsigned nBytes, std::uint64_t& n) noexcept {
        if (remaining() < nBytes) {
            return false;
        }
        n = 0;
        for (unsigned i = 0; i < nBytes; ++i) {
            n = (n << 8) | static_cast<unsigned char>(m_bytes[m_nPos++]);
        }
        return true;
    }

    std::string_view m_bytes;
    std::size_t m_nPos = 0;
};

struct TZifHeader {
    std::uint8_t nVersion;  // 1 for the NUL version byte, else the digit's value
    std::uint32_t nIsUtCount;
    std::uint32_t nIsStdCount;
    std::uint32_t nLeapCount;
    std::uint32_t nTimeCount;
    std::uint32_t nTypeCount;
    std::uint32_t nCharCount;
};

bool readHeader(ByteReader& reader, const TZifLimits& limits, TZifHeader& header) noexcept {
    std::string_view magic;
    std::uint8_t nVersionByte = 0;
    if (!reader.readBytes(4, magic) || magic != "TZif" || !reader.readU8(nVersionByte)) {
        return false;
    }
    if (nVersionByte == 0) {
        header.nVersion = 1;
    } else if (nVersionByte >= '2' && nVersionByte <= '4') {
        header.nVersion = static_cast<std::uint8_t>(nVersionByte - '0');
    } else {
        return false;
    }
    if (!reader.skip(15) || !reader.readU32(header.nIsUtCount) ||
        !reader.readU32(header.nIsStdCount) || !reader.readU32(header.nLeapCount) ||
        !reader.readU32(header.nTimeCount) || !reader.readU32(header.nTypeCount) ||
        !reader.readU32(header.nCharCount)) {
        return false;
    }
    // The type index of a transition is one byte, hence at most 256 types.
    return header.nTypeCount >= 1 && header.nTypeCount <= 256 && header.nCharCount >= 1 &&
           header.nCharCount <= limits.nMaxAbbreviationBytes &&
           header.nTimeCount <= limits.nMaxTransitions &&
           header.nLeapCount <= limits.nMaxLeapSeconds &&
           (header.nIsUtCount == 0 || header.nIsUtCount == header.nTypeCount) &&
           (header.nIsStdCount == 0 || header.nIsStdCount == header.nTypeCount);
}

std::uint64_t dataBlockSize(const TZifHeader& header, unsigned nTimeSize) noexcept {
    return std::uint64_t{header.nTimeCount} * (nTimeSize + 1) +
           std::uint64_t{header.nTypeCount} * 6 + header.nCharCount +
           std::uint64_t{header.nLeapCount} * (nTimeSize + 4) + header.nIsStdCount +
           header.nIsUtCount;
}

bool readDataBlock(ByteReader& reader, const TZifHeader& header, unsigned nTimeSize,
                   TZifZone& zone) {
    if (dataBlockSize(header, nTimeSize) > reader.remaining()) {
        return false;
    }
    zone.vecTransitionTimes.resize(header.nTimeCount);
    for (std::size_t i = 0; i < header.nTimeCount; ++i) {
        std::int64_t nTime = 0;
        if (!reader.readSigned(nTimeSize, nTime) ||
            (i > 0 && nTime <= zone.vecTransitionTimes[i - 1])) {
            return false;
        }
        zone.vecTransitionTimes[i] = nTime;
    }
    zone.vecTransitionTypes.resize(header.nTimeCount);
    for (std::size_t i = 0; i < header.nTimeCount; ++i) {
        if (!reader.readU8(zone.vecTransitionTypes[i]) ||
            zone.vecTransitionTypes[i] >= header.nTypeCount) {
            return false;
        }
    }
    std::vector<std::uint8_t> vecAbbreviationIndex(header.nTypeCount);
    zone.vecTypes.resize(header.nTypeCount);
    for (std::size_t i = 0; i < header.nTypeCount; ++i) {
        std::int64_t nOffset = 0;
        std::uint8_t nIsDst = 0;
        if (!reader.readSigned(4, nOffset) || !reader.readU8(nIsDst) ||
            !reader.readU8(vecAbbreviationIndex[i])) {
            return false;
        }
        if (nOffset < -kMaxAbsUtcOffset || nOffset > kMaxAbsUtcOffset || nIsDst > 1 ||
            vecAbbreviationIndex[i] >= header.nCharCount) {
            return false;
        }
        zone.vecTypes[i] = {static_cast<std::int32_t>(nOffset), nIsDst == 1};
    }
    std::string_view chars;
    if (!reader.readBytes(header.nCharCount, chars)) {
        return false;
    }
    zone.vecTypeAbbreviations.clear();
    for (std::size_t i = 0; i < header.nTypeCount; ++i) {
        const std::string_view rest = chars.substr(vecAbbreviationIndex[i]);
        const std::size_t nEnd = rest.find('\0');
        if (nEnd == std::string_view::npos) {
            return false;
        }
        zone.vecTypeAbbreviations.push_back(fromUtf8(rest.substr(0, nEnd)));
    }
    // Leap-second records are not applied (instants are POSIX times); they only have to fit.
    if (!reader.skip(std::uint64_t{header.nLeapCount} * (nTimeSize + 4))) {
        return false;
    }
    for (std::uint32_t i = 0; i < header.nIsStdCount + header.nIsUtCount; ++i) {
        std::uint8_t nIndicator = 0;
        if (!reader.readU8(nIndicator) || nIndicator > 1) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool readTZif(std::string_view bytes, const TZifLimits& limits, TZifZone& zone) {
    if (bytes.size() > limits.nMaxBytes) {
        return false;
    }
    ByteReader reader(bytes);
    TZifHeader header{};
    if (!readHeader(reader, limits, header)) {
        return false;
    }
    if (header.nVersion == 1) {
        return readDataBlock(reader, header, 4, zone) && reader.remaining() == 0;
    }
    // Version 2 and later repeat everything with 64-bit times after the 32-bit block, which
    // exists only for old readers.
    TZifHeader header64{};
    if (!reader.skip(dataBlockSize(header, 4)) || !readHeader(reader, limits, header64) ||
        header64.nVersion != header.nVersion || !readDataBlock(reader, header64, 8, zone)) {
        return false;
    }
    // The footer: a POSIX TZ string between two newlines, possibly empty, ending the file.
    std::string_view footer;
    if (!reader.readBytes(reader.remaining(), footer) || footer.size() < 2 ||
        footer.front() != '\n' || footer.back() != '\n') {
        return false;
    }
    footer = footer.substr(1, footer.size() - 2);
    if (footer.find('\n') != std::string_view::npos) {
        return false;
    }
    if (!footer.empty()) {
        if (!parsePosixRule(footer, zone.rule)) {
            return false;
        }
        zone.bHasRule = true;
    }
    return true;
}

}  // namespace kiv::zoneinternal
