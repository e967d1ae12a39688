#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Starts real servers on loopback, on ports that are free, and stops them again.

  servers.py SERVER... [-- COMMAND...]     SERVER is nginx, apache, lighttpd, vsftpd, pureftpd, pyftpd, tftpd
                                           or atftpd, or one of the proxies squid and tinyproxy

All serve one new directory, in which "upload" is writable. When they answer, the command runs, and they end with it;
without one they run until standard input ends. The command finds in its environment, and without one standard output
gets as JSON: SERVED, the directory; CA_DIR, a hashed directory of the CA behind the HTTPS server; and the base URLs
HTTP, HTTPS, FTP and TFTP of the servers that run. A server that cannot run here is told as "SKIPPED: ...", and the
exit status is 77. Tests use the module: Place, Authority and start().
"""
import contextlib
import hashlib
import json
import os
import pathlib
import pwd
import shutil
import signal
import socket
import string
import subprocess
import sys
import tempfile
import time

USER, PASSWORD, REALM = "phone", "s3cret", "the vault"
START_LIMIT_S = 20
SEARCHED = os.environ.get("PATH", "") + ":/usr/local/sbin:/usr/sbin:/sbin:/usr/bin:/bin"
UNPACKED = pathlib.Path(__file__).resolve().parent.parent / "build-servers/usr"


class Missing(Exception):
    """A server that cannot run on this machine."""


def openssl(*words):
    command = ["openssl", *map(str, words)]
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout


class Authority:
    """A certification authority: its files in a directory, as servers and clients read them."""

    new_key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256")

    def __init__(self, directory, name="root", new_key=new_key):
        self.directory, self.key, self.file = directory, directory / "ca.key", directory / "hashed/ca.pem"
        self.hashed = self.file.parent
        self.hashed.mkdir(parents=True)
        openssl("req", "-x509", *new_key, "-nodes", "-days", 2, "-subj", f"/CN={name}", "-keyout", self.key, "-out",
                self.file)
        openssl("rehash", self.hashed)

    def issue(self, file_name, common_name="127.0.0.1", alt_name="IP:127.0.0.1,IP:::1", days=2, passphrase=None):
        """A file with a certificate and its P-256 key; "-1 days" has expired."""
        request, key, made = (self.directory / (file_name + end) for end in (".csr", ".key", ".pem"))
        secrecy = ["-passout", f"pass:{passphrase}"] if passphrase else ["-nodes"]
        openssl("req", *self.new_key, *secrecy, "-subj", f"/CN={common_name}", "-addext", f"subjectAltName={alt_name}",
                "-keyout", key, "-out", request)
        openssl("x509", "-req", "-in", request, "-CA", self.file, "-CAkey", self.key, "-CAcreateserial",
                "-copy_extensions", "copyall", "-days", days, "-out", made)
        made.write_bytes(made.read_bytes() + key.read_bytes())
        return made


class Place:
    """Where servers work: `root` is served, the rest is theirs. Those that give up root must reach it."""

    def __init__(self, directory):
        self.directory, self.root = pathlib.Path(directory), pathlib.Path(directory) / "root"
        self.directory.chmod(0o755)
        (self.root / "upload").mkdir(parents=True)
        (self.root / "upload").chmod(0o777)
        self.authority = Authority(self.directory / "ca")
        self.certificate = self.authority.issue("server")

    def write(self, name, template, **values):
        path = self.directory / name
        values |= {"place": self.directory, "root": self.root, "certificate": self.certificate, "realm": REALM}
        path.write_text(string.Template(template).substitute(values))
        return path


NGINX = """daemon off;
master_process off;
pid $place/nginx.pid;
error_log stderr;
events { }
http {
  access_log off;
  $temporary
  client_max_body_size 0;
  default_type application/octet-stream;
  ssl_certificate $certificate;
  ssl_certificate_key $certificate;
  server {
    listen 127.0.0.1:$http;
    listen 127.0.0.1:$https ssl;
    $ipv6
    ssl_protocols $protocols;
    root $root;
    location /upload/ { dav_methods PUT; }
    location /chunked/ { alias $root/; ssi on; ssi_types *; }
    location /streamed/ { alias $root/; ssi on; ssi_types *; chunked_transfer_encoding off; }
    location /private/ { alias $root/; auth_basic "$realm"; auth_basic_user_file $users; }
    location /closed/ { alias $root/upload/; dav_methods PUT; auth_basic "$realm"; auth_basic_user_file $users; }
    location /to-https/ { rewrite ^/to-https(/.*) https://127.0.0.1:$https$$1 redirect; }
  }
}
"""

APACHE = """ServerRoot $place
ServerName 127.0.0.1
PidFile $place/apache.pid
ErrorLog $place/apache.log
$user
$modules
Listen 127.0.0.1:$http
Mutex file:$place
DocumentRoot $root
<Location />
  AuthType Digest
  AuthName "$realm"
  AuthDigestProvider file
  AuthUserFile $users
  Require valid-user
</Location>
"""
APACHE_MODULES = "mpm_prefork authn_core authn_file authz_core authz_user auth_digest".split()

LIGHTTPD = """server.document-root = "$root"
server.bind = "127.0.0.1"
server.port = $http
server.modules = ("mod_alias", "mod_auth", "mod_authn_file", "mod_redirect")
index-file.names = ("index")
alias.url = ("/private/" => "$root/")
auth.backend = "htdigest"
auth.backend.htdigest.userfile = "$users"
auth.require = ("/private/" => ("method" => "digest", "algorithm" => "SHA-256", "realm" => "$realm",
  "require" => "valid-user", "userhash" => "enable"))
$redirects
"""
LIGHTTPD_REDIRECT = """$$HTTP["url"] =~ "^/CODE/" {
  url.redirect = ("^/CODE/(.*)" => "/$$1")
  url.redirect-code = CODE
}
"""

SQUID = """http_port 127.0.0.1:$http
pid_filename none
cache_log stdio:/dev/null
access_log none
cache deny all
pinger_enable off
shutdown_lifetime 0 seconds
coredump_dir $place
auth_param digest program /usr/lib/squid/digest_file_auth -c $users
auth_param digest realm $realm
acl known proxy_auth REQUIRED
http_access allow known
"""

TINYPROXY = """Port $http
Listen 127.0.0.1
BasicAuth $user $password
"""

VSFTPD_ON = """listen anonymous_enable no_anon_password write_enable anon_upload_enable anon_other_write_enable
    run_as_launching_user""".split()
VSFTPD_TLS = """ssl_enable allow_anon_ssl force_anon_logins_ssl force_anon_data_ssl require_ssl_reuse
    strict_ssl_read_eof strict_ssl_write_shutdown""".split()
VSFTPD_OFF = """background anon_world_readable_only seccomp_sandbox isolate isolate_network connect_from_port_20
    xferlog_enable""".split()


def have_ipv6():
    with contextlib.suppress(OSError), socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as probe:
        probe.bind(("::1", 0))
        return True
    return False


# What follows makes the command line of a server: place, host, its ports by scheme, further options.
def nginx(place, _host, ports, protocols):
    users = place.write("users", f"{USER}:{{PLAIN}}{PASSWORD}\n")
    kinds = ["client_body", "proxy", "fastcgi", "uwsgi", "scgi"]
    temporary = "\n".join(f"{kind}_temp_path {place.directory}/tmp-{kind};" for kind in kinds)
    ipv6 = f"listen [::1]:{ports['https']} ssl ipv6only=on;" if have_ipv6() else ""
    protocols = " ".join(protocols) or "TLSv1.2 TLSv1.3"
    values = {"users": users, "temporary": temporary, "ipv6": ipv6, "protocols": protocols, **ports}
    conf = place.write("nginx.conf", NGINX, **values)
    return ["nginx", "-p", place.directory, "-c", conf, "-e", "stderr"]


def apache(place, _host, ports, _options):
    secret = hashlib.md5(f"{USER}:{REALM}:{PASSWORD}".encode()).hexdigest()
    users = place.write("digest-users", f"{USER}:$realm:{secret}\n")
    user = "User www-data\nGroup www-data" if os.geteuid() == 0 else ""
    modules = "\n".join(f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so" for name in APACHE_MODULES)
    conf = place.write("apache.conf", APACHE, users=users, user=user, modules=modules, **ports)
    return ["apache2", "-D", "FOREGROUND", "-f", conf]


def lighttpd(place, _host, ports, _options):
    def sha256(*parts):
        return hashlib.sha256(":".join(parts).encode()).hexdigest()

    secret, hashed_user = sha256(USER, REALM, PASSWORD), sha256(USER, REALM)
    users = place.write("sha256-users", f"{USER}:$realm:{secret}:{hashed_user}\n")
    redirects = "".join(LIGHTTPD_REDIRECT.replace("CODE", str(code)) for code in (301, 302, 303, 307, 308))
    values = {"users": users, "redirects": redirects.replace("$$", "$"), **ports}
    return ["lighttpd", "-D", "-f", place.write("lighttpd.conf", LIGHTTPD, **values)]


def squid(place, _host, ports, _options):
    secret = hashlib.md5(f"{USER}:{REALM}:{PASSWORD}".encode()).hexdigest()
    users = place.write("squid-users", f"{USER}:$realm:{secret}\n")
    return ["squid", "-N", "-f", place.write("squid.conf", SQUID, users=users, **ports)]


def tinyproxy(place, _host, ports, _options):
    return ["tinyproxy", "-d", "-c", place.write("tinyproxy.conf", TINYPROXY, user=USER, password=PASSWORD, **ports)]


def vsftpd(place, host, ports, options):
    values = {"listen_address": host, "listen_port": ports["ftp"], "anon_root": place.root, "anon_umask": "022",
              "secure_chroot_dir": place.root}
    values |= dict.fromkeys(VSFTPD_ON, "YES") | dict.fromkeys(VSFTPD_OFF, "NO")
    if "tls" in options:
        values |= dict.fromkeys(VSFTPD_TLS, "YES") | {"rsa_cert_file": place.certificate, "cmds_denied": "EPSV"}
    return ["vsftpd", place.write("vsftpd.conf", "".join(f"{name}={value}\n" for name, value in values.items()))]


def pureftpd(place, host, ports, options):
    if os.geteuid() != 0:
        raise Missing("pure-ftpd runs as root only")
    hashed, owner = openssl("passwd", "-1", PASSWORD).decode().strip(), pwd.getpwnam("ftp")
    entry = [USER, hashed, owner.pw_uid, owner.pw_gid, "", f"{place.root}/./", *[""] * 12]
    users = place.directory / "pure-users"
    users.write_text(":".join(map(str, entry)) + "\n")
    subprocess.run([UNPACKED / "bin/pure-pw", "mkdb", f"{users}.pdb", "-f", users], check=True)
    tls = ["-Y", "3", "-2", place.certificate] if "tls" in options else []
    return [UNPACKED / "sbin/pure-ftpd", "-S", f"{host},{ports['ftp']}", "-l", f"puredb:{users}.pdb", "-E", "-H",
            "-u", "1", "-g", place.directory / "pure.pid", *tls]


def pyftpd(place, host, ports, _options):
    login = ["-u", USER, "-P", PASSWORD]
    return ["/usr/bin/python3", "-m", "pyftpdlib", "-i", host, "-p", ports["ftp"], "-w", "-d", place.root, *login]


def tftpd(place, host, ports, options):
    if os.geteuid() != 0:
        raise Missing("in.tftpd runs as root only")
    at = f"[{host}]:{ports['tftp']}" if ":" in host else f"{host}:{ports['tftp']}"
    return ["in.tftpd", "--foreground", "-6" if ":" in host else "-4", "--address", at, "--create", "--permissive",
            *options, "--secure", place.root]


def atftpd(place, host, ports, options):
    return [UNPACKED / "sbin/atftpd", "--daemon", "--no-fork", f"--bind-address={host}", f"--port={ports['tftp']}",
            "--logfile=-", *options, place.root]


SCHEMES = {nginx: ["http", "https"], apache: ["http"], lighttpd: ["http"], squid: ["http"], tinyproxy: ["http"],
           vsftpd: ["ftp"], pureftpd: ["ftp"], pyftpd: ["ftp"], tftpd: ["tftp"], atftpd: ["tftp"]}


class Server:
    """A server program until stop()."""

    def __init__(self, command_for, place, host, options):
        schemes = SCHEMES[command_for]
        self.host, self.family = host, socket.AF_INET6 if ":" in host else socket.AF_INET
        self.kind = socket.SOCK_DGRAM if "tftp" in schemes else socket.SOCK_STREAM
        self.ports = {scheme: self.free_port() for scheme in schemes}
        command = [str(word) for word in command_for(place, host, self.ports, options)]
        program = shutil.which(command[0], path=SEARCHED)
        if not program:
            raise Missing(f"{command[0]} is not installed")
        self.log = place.directory / (command_for.__name__ + ".log")
        # It also ends when this process is killed.
        command = ["setpriv", "--pdeathsig", "KILL", program, *command[1:]]
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            start_new_session=True)

    def free_port(self):
        with socket.socket(self.family, self.kind) as probe:
            probe.bind((self.host, 0))
            return probe.getsockname()[1]

    def answers(self, port):
        with contextlib.suppress(OSError), socket.socket(self.family, self.kind) as probe:
            probe.settimeout(0.2)
            if self.kind == socket.SOCK_STREAM:
                probe.connect((self.host, port))
            else:
                probe.sendto(b"\0\1no-such-file\0octet\0", (self.host, port))
                probe.recv(600)
            return True
        return False

    def is_ready(self):
        limit = time.monotonic() + START_LIMIT_S
        while self.process.poll() is None and time.monotonic() < limit:
            if all(map(self.answers, self.ports.values())):
                return True
            time.sleep(0.02)
        return False

    def url(self, scheme):
        return f"{scheme}://" + (f"[{self.host}]" if ":" in self.host else self.host) + f":{self.ports[scheme]}"

    def stop(self):
        self.process.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(3)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, signal.SIGKILL)
        self.process.wait()


def start(name, place, host="127.0.0.1", options=()):
    """A server that answers. Somebody may take a port that was free: then once more with others."""
    for _ in range(3):
        server = Server(globals()[name], place, host, options)
        if server.is_ready():
            return server
        server.stop()
    raise RuntimeError(f"{name} does not start: {server.log.read_text(errors='replace')}")


def main(words):
    names, command = (words[:words.index("--")], words[words.index("--") + 1:]) if "--" in words else (words, [])
    if not names or not set(names) <= {known.__name__ for known in SCHEMES}:
        sys.exit(__doc__)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(130))
    with tempfile.TemporaryDirectory() as directory, contextlib.ExitStack() as running:
        place = Place(directory)
        told = {"SERVED": str(place.root), "CA_DIR": str(place.authority.hashed)}
        for name in names:
            server = start(name, place)
            running.callback(server.stop)
            told |= {scheme.upper(): server.url(scheme) for scheme in server.ports}
        if command:
            child = subprocess.Popen(command, env=os.environ | told)
            running.callback(child.terminate)
            return child.wait()
        print(json.dumps(told), flush=True)
        sys.stdin.read()
        return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except Missing as why:
        print(f"SKIPPED: {why}")
        sys.exit(77)
    except KeyboardInterrupt:
        sys.exit(130)
