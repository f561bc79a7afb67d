"""Texts between Python and the gateway, which writes modified UTF-8: NUL in two bytes, characters
beyond U+FFFF as two surrogates of three bytes each."""

import codecs
import math
import re
from typing import Optional, Tuple, Union

_SURROGATES = re.compile(rb"\xed[\xa0-\xaf][\x80-\xbf](\xed[\xb0-\xbf][\x80-\xbf])")
_SURROGATE = re.compile(rb"\xed[\xa0-\xbf][\x80-\xbf]")
_BEYOND = re.compile("[\U00010000-\U0010ffff]")
# What JSON calls a number: 007 and +1 are texts.
_INTEGER = re.compile(r"-?(0|[1-9][0-9]*)")
_DECIMAL = re.compile(_INTEGER.pattern + r"(\.[0-9]+)?([eE][+-]?[0-9]+)?")


def _resume(failure: UnicodeError) -> Tuple[str, int]:
    """Called where the bytes are not UTF-8: returns the characters to insert and where to go on."""
    if not isinstance(failure, UnicodeDecodeError):
        raise failure
    data, at = failure.object, failure.start
    if data.startswith(b"\xc0\x80", at):
        return "\0", at + 2
    if _SURROGATES.match(data, at):
        halves = data[at : at + 6].decode("utf-8", "surrogatepass")
        return halves.encode("utf-16", "surrogatepass").decode("utf-16"), at + 6
    return "\ufffd", at + (3 if _SURROGATE.match(data, at) else 1)


codecs.register_error("zebstats", _resume)


def decode(data: bytes) -> str:
    """Decodes a text of the gateway. Bytes that are not text become U+FFFD."""
    return data.decode("utf-8", "zebstats")


def _halve(match: "re.Match[str]") -> str:
    code = ord(match[0]) - 0x10000
    return chr(0xD800 + (code >> 10)) + chr(0xDC00 + (code & 0x3FF))


def encode(text: Union[str, bytes]) -> bytes:
    """Encodes an id for a query; bytes are taken as they came from the gateway."""
    if isinstance(text, str):
        halved = _BEYOND.sub(_halve, text)
        return halved.encode("utf-8", "surrogatepass").replace(b"\0", b"\xc0\x80")
    if isinstance(text, (bytes, bytearray, memoryview)):  # type checkers take all three for bytes
        return bytes(text)
    raise TypeError(f"an id is a str or bytes, not {text!r}")


def parse_integer(text: str) -> Optional[int]:
    """Returns the integer if the whole text is one."""
    try:
        return int(text) if _INTEGER.fullmatch(text) else None
    except ValueError:  # Python refuses to convert thousands of digits
        return None


def parse_float(text: str) -> Optional[float]:
    """Returns the number if the whole text is a finite one."""
    number = float(text) if _DECIMAL.fullmatch(text) else math.inf
    return number if math.isfinite(number) else None
