#!/usr/bin/python3
"""FTP peer of the URL transfer tests: user "test", password "secret", home ROOT, on
127.0.0.1 at a free port printed on stdout.  usage: ftp_test_server.py ROOT"""
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import ThreadedFTPServer

logging.disable(logging.CRITICAL)
authorizer = DummyAuthorizer()
authorizer.add_user("test", "secret", sys.argv[1], perm="elradfmwMT")
FTPHandler.authorizer = authorizer
FTPHandler.banner = "test peer"
server = ThreadedFTPServer(("127.0.0.1", 0), FTPHandler)
print(server.address[1], flush=True)
server.serve_forever()
