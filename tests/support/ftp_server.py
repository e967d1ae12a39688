"""An FTP server: ftp_server.py ADDRESS PORT DIRECTORY USER PASSWORD. The user and anonymous may do anything."""
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer

address, port, directory, user, password = sys.argv[1:]
authorizer = DummyAuthorizer()
everything = "elradfmwMT"
authorizer.add_user(user, password, directory, perm=everything)
authorizer.add_anonymous(directory, perm=everything[:-2])
handler = FTPHandler
handler.authorizer = authorizer
handler.auth_failed_timeout = 0
FTPServer((address, int(port)), handler).serve_forever()
