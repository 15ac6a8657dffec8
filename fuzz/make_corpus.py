#!/usr/bin/env python3
"""Writes the committed seed corpora under fuzz/corpus/<target>/.

Run again only to change the seeds (needs python3 and the openssl tool):
    python3 fuzz/make_corpus.py
Keys are made fresh each time, so the key seeds change on every run.
"""
import hashlib
import os
import shutil
import struct
import subprocess
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, "corpus")
HEADER_SIZE = 4096
RECORD_SIZE = 540


def be32(value):
    return struct.pack(">I", value)


def record(size, offset, name, signature):
    body = be32(size) + be32(offset) + name.encode().ljust(16, b"\0")
    return body + be32(len(signature)) + signature.ljust(512, b"\0")


def header_block(signature, records=(), digest_length=0, version=4, canary2=0xFEEDFACE):
    table = b"".join(records)
    body = be32(0xDEADC0DE) + be32(version) + be32(len(signature)) + signature
    body += be32(len(table)) + table + be32(digest_length)
    body += b"\xff" * (HEADER_SIZE - 4 - len(body))
    return body + be32(canary2)


def pattern(length, seed):
    return bytes((seed + 7 * i) & 0xFF for i in range(length))


def der_integer(value):
    return b"\x02" + bytes([len(value)]) + value


def der_sequence(content):
    if len(content) < 128:
        return b"\x30" + bytes([len(content)]) + content
    return b"\x30\x81" + bytes([len(content)]) + content


def openssl(*args, data=None):
    return subprocess.run(["openssl", *args], input=data, check=True, capture_output=True).stdout


def key_texts(pem_path):
    """n, e, p, q, d of a private key as upper-case hex, as BN_bn2hex gives them."""
    text = openssl("rsa", "-in", pem_path, "-noout", "-text").decode()
    fields, current = {}, None
    names = {"modulus:": "n", "prime1:": "p", "prime2:": "q", "privateExponent:": "d"}
    for line in text.splitlines():
        stripped = line.strip()
        if stripped in names:
            current = names[stripped]
            fields[current] = ""
        elif stripped.startswith("publicExponent:"):
            fields["e"] = "%X" % int(stripped.split()[1])
            current = None
        elif current and line.startswith(" "):
            fields[current] += stripped.replace(":", "")
        else:
            current = None
    for name, value in fields.items():
        value = value.upper().lstrip("0") or "0"
        fields[name] = value if len(value) % 2 == 0 else "0" + value
    return fields


def key_file(fields, private):
    lines = ["markforge-rsa-key 1", "kind: private" if private else "kind: public"]
    lines += ["n: " + fields["n"], "e: " + fields["e"]]
    if private:
        lines += ["p: " + fields["p"], "q: " + fields["q"], "d: " + fields["d"]]
    return ("\n".join(lines) + "\nend\n").encode()


def write(target, name, data):
    folder = os.path.join(CORPUS, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as out:
        out.write(data)


def header_seeds():
    sig256 = pattern(256, 1)
    write("header_fuzz", "sig64-no-records", header_block(pattern(64, 3)))
    write("header_fuzz", "sig256-two-records",
          header_block(sig256, [record(4096, 4096, "kernel", pattern(256, 5)),
                                record(1024, 8192, "rootfs", pattern(256, 9))], 32) + pattern(100, 11))
    write("header_fuzz", "sig512-one-record-at-300",
          pattern(300, 13) + header_block(pattern(512, 15), [record(16, 4396, "boot", pattern(512, 17))], 64))
    write("header_fuzz", "version3-sig60", header_block(pattern(60, 19), version=3))
    write("header_fuzz", "bad-canary2", header_block(pattern(64, 21), canary2=0x01020304))
    write("header_fuzz", "stray-canary-before-block",
          be32(0xDEADC0DE) + pattern(40, 23) + header_block(pattern(128, 25)))


def der_seeds(workdir):
    key = os.path.join(workdir, "p256.pem")
    openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key)
    write("der_sig_fuzz", "p256-ecdsa", openssl("dgst", "-sha256", "-sign", key, data=b"seed"))
    write("der_sig_fuzz", "sign-byte-and-short-integer",
          der_sequence(der_integer(b"\x00" + pattern(32, 0x81)) + der_integer(pattern(31, 0x41))))
    write("der_sig_fuzz", "not-a-sequence", der_integer(b"\x05"))
    write("der_sig_fuzz", "nested-sequence", der_sequence(der_sequence(der_integer(b"\x01") + der_integer(b"\x02"))))
    write("der_sig_fuzz", "long-integers", der_sequence(der_integer(pattern(66, 3)) + der_integer(pattern(40, 5))))
    write("der_sig_fuzz", "empty", b"")


def hex_seeds():
    for name, text in [("bytes", "01AB00"), ("mixed-case", "0a1B"), ("spaces", "A 0B"),
                       ("leading-space", " 1"), ("odd", "abc"), ("foreign", "0x12"), ("empty", ""),
                       ("modulus", pattern(64, 7).hex().upper())]:
        write("hex_string_fuzz", name, text.encode())


def key_seeds(workdir):
    for bits in (512, 2048):
        private = os.path.join(workdir, "rsa%d.pem" % bits)
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:%d" % bits, "-out", private)
        fields = key_texts(private)
        write("key_file_fuzz", "public-%d" % bits, key_file(fields, False))
        write("key_file_fuzz", "private-%d" % bits, key_file(fields, True))
        write("pem_key_fuzz", "public-%d.pem" % bits, openssl("pkey", "-in", private, "-pubout"))
        write("pem_key_fuzz", "rsa-private-%d.pem" % bits, openssl("rsa", "-in", private, "-traditional"))
    small = os.path.join(workdir, "rsa512.pem")
    write("pem_key_fuzz", "pkcs8-private-512.pem", openssl("pkey", "-in", small))
    write("pem_key_fuzz", "certificate.pem",
          openssl("req", "-x509", "-new", "-key", small, "-subj", "/CN=seed", "-days", "1"))
    write("pem_key_fuzz", "plain-text", b"neither a key nor a certificate\n")
    # Labels around the conversion's public-only shortcut: a private body
    # under PUBLIC KEY (no private key) and under RSA PUBLIC KEY (read as one),
    # and a public block followed by a private one.
    traditional = openssl("rsa", "-in", small, "-traditional")
    write("pem_key_fuzz", "private-as-public.pem", traditional.replace(b"RSA PRIVATE KEY", b"PUBLIC KEY"))
    write("pem_key_fuzz", "private-as-rsa-public.pem", traditional.replace(b"RSA PRIVATE KEY", b"RSA PUBLIC KEY"))
    write("pem_key_fuzz", "public-then-private.pem", openssl("pkey", "-in", small, "-pubout") + traditional)
    write("key_file_fuzz", "crlf-public", key_file(key_texts(small), False).replace(b"\n", b"\r\n"))


def sign_request(name, digest, arguments):
    area = 32 if len(digest) == 32 else 64
    return (name.encode().ljust(32, b"\0") + digest.ljust(area, b"\0") + arguments.encode().ljust(64, b"\0"))


def sign_request_seeds():
    for length in (32, 48, 64):
        request = sign_request("release", pattern(length, length), "F=image.bin;C=1;S=%d;" % length)
        write("sign_request_fuzz", "sha%d" % (length * 8), request)
    write("sign_request_fuzz", "no-f-field", sign_request("k", pattern(32, 1), "S=32;"))
    write("sign_request_fuzz", "size-mismatch", sign_request("k", pattern(64, 2), "S=32;"))
    write("sign_request_fuzz", "extra-text", sign_request("k", pattern(48, 3), "F=a;S=48;X=y;" + "z" * 40))
    write("sign_request_fuzz", "one-byte-too-many", sign_request("k", pattern(32, 4), "S=32;") + b"\0")


def signed(algorithm, content):
    """What a markforge signature signs: the upper-case hex digest of the content."""
    text = hashlib.new(algorithm, content).hexdigest().upper().encode()
    return openssl("dgst", "-" + algorithm, "-sign", os.path.join(HERE, "container_fuzz_key.pem"), data=text)


def container(algorithm, parts, prefix=b""):
    """A container signed with the fuzz target's key, so that its verdicts can be ok."""
    records, offset = [], 0
    for name, content in parts:
        records.append(record(len(content), offset, name, signed(algorithm, content)))
        offset += len(content)
    payload = b"".join(content for _, content in parts)
    archive = signed(algorithm, parts[0][1] if len(parts) == 1 else payload)
    length = hashlib.new(algorithm).digest_size
    return prefix + header_block(archive, records, digest_length=length) + payload


def container_seeds():
    parts = [("boot", pattern(300, 1)), ("kernel", pattern(700, 2)), ("rootfs", pattern(500, 3))]
    three = container("sha512", parts)
    write("container_fuzz", "one-sha256", container("sha256", parts[:1]))
    write("container_fuzz", "three-sha512", three)
    write("container_fuzz", "empty-sha384", container("sha384", []))
    write("container_fuzz", "block-at-10000", container("sha256", parts[:2], prefix=b"\0" * 10000))
    write("container_fuzz", "cut-in-second-component", three[:HEADER_SIZE + 400])
    flipped = bytearray(three)
    flipped[HEADER_SIZE + 10] ^= 0x5A
    write("container_fuzz", "flipped-payload-byte", bytes(flipped))
    write("container_fuzz", "offset-wraps-32-bits",
          header_block(pattern(128, 5), [record(0x20, 0xFFFFFFF0, "wrap", pattern(128, 6))], digest_length=32))
    write("container_fuzz", "not-a-container", b"\xff" * 5000)


def table(algorithm, parts):
    """The table of contents of `parts` laid out back to back (docs/container-format.md)."""
    out = b"markforge-table\0" + be32(1) + be32(len(parts))
    offset = 0
    for index, (name, content) in enumerate(parts):
        digest = hashlib.new(algorithm, content).digest()
        out += be32(index) + name.encode().ljust(16, b"\0") + be32(offset) + be32(len(content))
        out += be32(len(digest)) + digest
        offset += len(content)
    return out


def table_seeds():
    parts = [("boot", pattern(300, 1)), ("kernel", pattern(700, 2))]
    listed = table("sha256", parts)
    write("container_fuzz", "two-with-table", container("sha256", parts + [(".markforge-toc", listed)]))
    write("container_fuzz", "table-alone", container("sha384", [(".markforge-toc", table("sha384", []))]))
    write("table_fuzz", "two-sha256", listed)
    write("table_fuzz", "one-sha512", table("sha512", parts[:1]))
    write("table_fuzz", "empty", table("sha256", []))
    write("table_fuzz", "trailing-byte", listed + b"\0")


def main():
    shutil.rmtree(CORPUS, ignore_errors=True)
    with tempfile.TemporaryDirectory() as workdir:
        header_seeds()
        container_seeds()
        table_seeds()
        der_seeds(workdir)
        hex_seeds()
        key_seeds(workdir)
        sign_request_seeds()


if __name__ == "__main__":
    main()
