"""A PIV card (NIST SP 800-73-4) with one certificate, as far as reading it, its PIN and its key's
existence go: SELECT, GET DATA, GET RESPONSE, VERIFY."""

PIN = b"471147"
AID = bytes.fromhex("A000000308000010000100")
CHUID, DISCOVERY, AUTHENTICATION_CERT = "5FC102", "7E", "5FC105"  # SP 800-73-4, the data model, table 3
OK, NOT_FOUND, NOT_SUPPORTED = b"\x90\x00", b"\x6a\x82", b"\x6d\x00"


def tlv(tag, *values):
    value = b"".join(values)
    size = len(value)
    length = bytes([size]) if size < 128 else bytes([0x82]) + size.to_bytes(2, "big")
    return bytes.fromhex(tag) + length + value


class PivCard:
    atr = bytes.fromhex("3B80800101")

    def __init__(self, certificate):
        self.objects = {
            CHUID: tlv("53", tlv("30", bytes(25)), tlv("34", bytes(range(16))), tlv("35", b"20301231"), tlv("3E"), tlv("FE")),
            DISCOVERY: tlv("7E", tlv("4F", AID), tlv("5F2F", b"\x40\x00")),
            AUTHENTICATION_CERT: tlv("53", tlv("70", certificate), tlv("71", b"\x00"), tlv("FE")),
        }
        self.reset()

    def reset(self):
        self.selected = self.verified = False
        self.rest = b""

    def answer(self, apdu):
        instruction, data, room = apdu[1], apdu[5:5 + sum(apdu[4:5])], apdu[-1] or 256
        if instruction == 0xA4:  # SELECT by name
            self.selected = bool(data) and AID.startswith(data)
            return self.part(tlv("61", tlv("4F", AID[5:]), tlv("79", tlv("4F", AID[:5]))), 256) if self.selected else NOT_FOUND
        if instruction == 0xC0:  # GET RESPONSE
            return self.part(self.rest, room)
        if not self.selected:
            return NOT_SUPPORTED
        if instruction == 0xCB:  # GET DATA, the tag in a 5C
            found = self.objects.get(data[2:].hex().upper())
            return self.part(found, room) if found else NOT_FOUND
        if instruction == 0x20:  # VERIFY; without data it asks
            self.verified = data.rstrip(b"\xff") == PIN if data else self.verified
            return OK if self.verified else b"\x63\xc3"
        return NOT_SUPPORTED

    def part(self, data, room):
        self.rest = data[room:]
        return data[:room] + (bytes([0x61, min(len(self.rest), 255)]) if self.rest else OK)
