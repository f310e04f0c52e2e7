#!/usr/bin/env python3
"""Writes the mail corpus the message-model tests read, byte for byte the
same on every run. Each message is laid out as the mailers that send such
mail lay it out; the broken ones are broken the way mail in the wild is.
Attachment contents follow simple byte formulas that the tests repeat.

Usage: make-corpus.py [directory]   (default: the directory of this script)
"""

import base64
import binascii
import os
import quopri
import sys


def pattern(count, mul, add):
    """count bytes of (i * mul + add) mod 256: attachment contents."""
    return bytes((i * mul + add) & 0xFF for i in range(count))


def b64_lines(data, width=76):
    text = base64.b64encode(data).decode("ascii")
    return "\r\n".join(text[i:i + width] for i in range(0, len(text), width))


def qp(data):
    # Line breaks of the encoded text stand for the CRLF of the content.
    encoded = quopri.encodestring(data.replace(b"\r\n", b"\n"))
    return encoded.decode("ascii").replace("\n", "\r\n")


def word_b(charset, data):
    return "=?%s?B?%s?=" % (charset, base64.b64encode(data).decode("ascii"))


def uuencode(data):
    lines = [binascii.b2a_uu(data[i:i + 45], backtick=True).decode("ascii").rstrip("\n")
             for i in range(0, len(data), 45)]
    return "\r\n".join(lines + ["`"])


def crlf(text):
    return text.replace("\r\n", "\n").replace("\n", "\r\n")


PLAIN_GB = "明天上午九点开会。\r\n请准时参加。\r\n".encode("gb2312")
HTML_UTF8 = "<html><body><p>明天上午九点开会。</p><p>请准时参加。</p></body></html>\r\n".encode("utf-8")


def alternative_gb2312_utf8():
    head = crlf("""Return-Path: <zhang@example.com>
Received: from mx.example.com by mail.example.net; Tue, 5 Jan 2010 08:30:02 +0800
Received: from [192.0.2.7] by mx.example.com; Tue, 5 Jan 2010 08:30:00 +0800
From: %s <zhang@example.com>
To: li@example.net,
 =?utf-8?Q?=E6=9D=8E=E5=9B=9B?= <li4@example.net>
Subject: %s
Date: Tue, 5 Jan 2010 08:30:00 +0800
Message-ID: <20100105083000.1234@example.com>
MIME-Version: 1.0
Content-Type: multipart/alternative;
\tboundary="----=_NextPart_000_0001"
X-Priority: 3
X-Mailer: Test Mailer 6.0

This is a multi-part message in MIME format.

------=_NextPart_000_0001
Content-Type: text/plain;
\tcharset="gb2312"
Content-Transfer-Encoding: base64

""" % (word_b("gb2312", "张三".encode("gb2312")), word_b("gb2312", "会议通知".encode("gb2312"))))
    return (head.encode("ascii") + b64_lines(PLAIN_GB).encode("ascii") + crlf("""

------=_NextPart_000_0001
Content-Type: text/html; charset=utf-8
Content-Transfer-Encoding: quoted-printable

""").encode("ascii") + qp(HTML_UTF8).encode("ascii") + crlf("""
------=_NextPart_000_0001--
""").encode("ascii"))


def big5_subject():
    head = crlf("""From: chen@example.com.tw
To: li@example.net
Subject: %s
Date: Wed, 6 Jan 2010 09:15:00 +0800
MIME-Version: 1.0
Content-Type: text/plain; charset=big5
Content-Transfer-Encoding: 8bit

""" % word_b("big5", "國語課程".encode("big5")))
    return head.encode("ascii") + "國語課程\r\n".encode("big5")


def hz_subject():
    return crlf("""From: wang@example.cn
To: li@example.net
Subject: =?hz-gb-2312?Q?~{VPND~}_HZ?=
Date: Thu, 7 Jan 2010 10:00:00 +0800
MIME-Version: 1.0
Content-Type: text/plain; charset="hz-gb-2312"
Content-Transfer-Encoding: 7bit

~{VPND~} in HZ
""").encode("ascii")


def html_only():
    html = "Hello<br>World <b>中文</b>\r\n".encode("gb2312")
    return crlf("""From: news@example.com
To: li@example.net
Subject: HTML only
Date: Fri, 8 Jan 2010 11:00:00 +0800
MIME-Version: 1.0
Content-Type: text/html; charset="gb2312"
Content-Transfer-Encoding: quoted-printable

""").encode("ascii") + qp(html).encode("ascii")


def attachment_rfc2231():
    return (crlf("""From: zhang@example.com
To: li@example.net
Subject: report
Date: Sat, 9 Jan 2010 12:00:00 +0800
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="b2231"

--b2231
Content-Type: text/plain; charset=us-ascii

See attached.
--b2231
Content-Type: application/octet-stream; name*=gb2312''%D6%D0%CE%C4%B1%A8%B8%E6.bin
Content-Disposition: attachment;
 filename*0*=gb2312''%D6%D0%CE%C4;
 filename*1*=%B1%A8%B8%E6;
 filename*2=".bin"
Content-Transfer-Encoding: base64

""") + b64_lines(pattern(3000, 7, 3)) + crlf("""
--b2231
Content-Type: application/pdf
Content-Disposition: attachment; filename*=us-ascii'en'report%202010.pdf
Content-Transfer-Encoding: base64

""") + b64_lines(pattern(700, 11, 5)) + crlf("""
--b2231--
""")).encode("ascii")


def attachment_rfc2047():
    photo = word_b("gb2312", "照片.jpg".encode("gb2312"))
    body = "附件是照片。\r\n".encode("gb2312")
    return (crlf("""From: zhang@example.com
To: li@example.net
Subject: photo
Date: Sun, 10 Jan 2010 13:00:00 +0800
MIME-Version: 1.0
Content-Type: multipart/mixed;
 boundary="=_2047_="

--=_2047_=
Content-Type: text/plain; charset="gb2312"
Content-Transfer-Encoding: quoted-printable

""") + qp(body) + crlf("""
--=_2047_=
Content-Type: image/jpeg; name="%s"
Content-Disposition: attachment; filename="%s"
Content-Transfer-Encoding: base64

""" % (photo, photo)) + b64_lines(pattern(5000, 13, 1)) + crlf("""
--=_2047_=
Content-Type: text/plain; charset=utf-8
Content-Disposition: attachment; filename="=?utf-8?Q?=E6=96=87=E4=BB=B6_1.txt?="
Content-Transfer-Encoding: 7bit

plain attachment text
--=_2047_=--
""")).encode("ascii")


def uuencoded_body():
    return crlf("""From: old@example.org
To: li@example.net
Subject: uuencoded file
Date: Mon, 11 Jan 2010 14:00:00 +0800

Here is the file.

begin 644 data.bin
%s
end

Regards
""" % uuencode(pattern(200, 3, 0))).encode("ascii")


def uuencoded_part():
    return crlf("""From: old@example.org
To: li@example.net
Subject: uuencoded part
Date: Mon, 11 Jan 2010 14:05:00 +0800
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="uu"

--uu
Content-Type: text/plain

Tool attached.
--uu
Content-Type: application/octet-stream; name="tool.bin"
Content-Transfer-Encoding: x-uuencode

begin 644 tool.bin
%s
end
--uu--
""" % uuencode(pattern(500, 5, 9))).encode("ascii")


def forwarded():
    inner = crlf("""From: chen@example.com.tw
To: zhang@example.com
Subject: original topic
Date: Tue, 12 Jan 2010 08:00:00 +0800
MIME-Version: 1.0
Content-Type: text/plain; charset=us-ascii

The original text.
""")
    return crlf("""From: zhang@example.com
To: li@example.net
Subject: Fw: original topic
Date: Tue, 12 Jan 2010 09:00:00 +0800
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="fwd"

--fwd
Content-Type: text/plain; charset=us-ascii

Forwarding the message below.
--fwd
Content-Type: message/rfc822; name="original.eml"
Content-Disposition: attachment; filename="original.eml"

""").encode("ascii") + inner.encode("ascii") + crlf("""
--fwd--
""").encode("ascii")


def nested():
    text = "Caf\u00e9 menu\r\n".encode("utf-8")
    html = "<p>Caf\u00e9 <img src=\"cid:logo\"> menu</p>\r\n".encode("utf-8")
    return (crlf("""From: shop@example.com
To: li@example.net
Subject: nested
Date: Wed, 13 Jan 2010 10:00:00 +0800
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="outer"

--outer
Content-Type: multipart/related; boundary="related"; type="multipart/alternative"

--related
Content-Type: multipart/alternative; boundary="alt"

--alt
Content-Type: text/plain; charset=utf-8
Content-Transfer-Encoding: quoted-printable

""") + qp(text) + crlf("""
--alt
Content-Type: text/html; charset=utf-8
Content-Transfer-Encoding: base64

""") + b64_lines(html) + crlf("""
--alt--

--related
Content-Type: image/png; name="logo.png"
Content-Disposition: inline
Content-ID: <logo>
Content-Transfer-Encoding: base64

""") + b64_lines(pattern(300, 17, 2)) + crlf("""
--related--

--outer
Content-Type: application/pdf; name="doc.pdf"
Content-Transfer-Encoding: base64

""") + b64_lines(pattern(1200, 19, 4)) + crlf("""
--outer--
""")).encode("ascii")


def broken_missing_boundary():
    # The message ends inside the attachment: no final boundary, and the
    # base64 stops mid-line.
    encoded = b64_lines(pattern(2000, 7, 3))
    return (crlf("""From: zhang@example.com
To: li@example.net
Subject: cut off
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="cut"

--cut
Content-Type: text/plain; charset=us-ascii

Text before the cut.
--cut
Content-Type: application/octet-stream; name="cut.bin"
Content-Transfer-Encoding: base64

""") + encoded[:1000]).encode("ascii")


def broken_base64():
    # Stray characters a mangling relay left in the base64, and the padding
    # of the last line lost.
    lines = b64_lines(PLAIN_GB).rstrip("=")
    mangled = lines[:8] + "!*" + lines[8:16] + " \t" + lines[16:]
    return crlf("""From: zhang@example.com
To: li@example.net
Subject: mangled
MIME-Version: 1.0
Content-Type: text/plain; charset="gb2312"
Content-Transfer-Encoding: base64

%s
""" % mangled).encode("ascii")


def broken_header_no_colon():
    return crlf("""From: zhang@example.com
This line has no colon
To: li@example.net
Subject: still read
MIME-Version: 1.0
Content-Type: text/plain; charset=us-ascii

Body after a broken header.
""").encode("ascii")


def broken_bogus_charset():
    return (crlf("""From: zhang@example.com
To: li@example.net
Subject: =?x-no-such-charset?B?%s?=
X-Garbage: """ % base64.b64encode(b"\xd6\xd0\xce\xc4").decode("ascii")).encode("ascii")
            + b"\x80\xff\xfe garbage\r\n" + crlf("""MIME-Version: 1.0
Content-Type: text/plain; charset="x-no-such-charset"
Content-Transfer-Encoding: 8bit

""").encode("ascii") + b"\xd6\xd0\xce\xc4 \x80\x81\xfe\xff\r\n")


CORPUS = {
    "alternative-gb2312-utf8.eml": alternative_gb2312_utf8,
    "big5-subject.eml": big5_subject,
    "hz-subject.eml": hz_subject,
    "html-only.eml": html_only,
    "attachment-rfc2231.eml": attachment_rfc2231,
    "attachment-rfc2047.eml": attachment_rfc2047,
    "uuencoded-body.eml": uuencoded_body,
    "uuencoded-part.eml": uuencoded_part,
    "forwarded.eml": forwarded,
    "nested.eml": nested,
    "broken-missing-boundary.eml": broken_missing_boundary,
    "broken-base64.eml": broken_base64,
    "broken-header-no-colon.eml": broken_header_no_colon,
    "broken-bogus-charset.eml": broken_bogus_charset,
}


def main():
    directory = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.abspath(__file__))
    for name, make in CORPUS.items():
        with open(os.path.join(directory, name), "wb") as out:
            out.write(make())


if __name__ == "__main__":
    main()
