"""ID3v2.3 tags built byte by byte, for texts no tagger writes as they are (legacy charsets in
Latin-1 frames, shell metacharacters, quotes), glued in front of a committed MP3."""


def _synchsafe(n):
    return bytes([(n >> 21) & 0x7F, (n >> 14) & 0x7F, (n >> 7) & 0x7F, n & 0x7F])


def latin1_tag(frames):
    """An ID3v2.3 tag of text frames declared ISO-8859-1; frames are (id, raw bytes) pairs, the
    bytes stored as given (so GBK or cp1251 bytes stay what they are)."""
    body = b""
    for frame_id, text in frames:
        data = b"\x00" + text
        body += frame_id.encode("ascii") + len(data).to_bytes(4, "big") + b"\x00\x00" + data
    return b"ID3\x03\x00\x00" + _synchsafe(len(body)) + body


def tagged_mp3(audio_path, frames):
    """The bytes of the MP3 at audio_path with a Latin-1 tag of these frames in front."""
    with open(audio_path, "rb") as f:
        return latin1_tag(frames) + f.read()
