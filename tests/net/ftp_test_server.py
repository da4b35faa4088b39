#!/usr/bin/python3
"""FTP peer of the URL tests on 127.0.0.1, its port printed first: test:secret, home ROOT."""
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import ThreadedFTPServer

logging.disable(logging.CRITICAL)
authorizer = DummyAuthorizer()
authorizer.add_user("test", "secret", sys.argv[1], perm="elradfmwMT")
FTPHandler.authorizer = authorizer
server = ThreadedFTPServer(("127.0.0.1", 0), FTPHandler)
print(server.address[1], flush=True)
server.serve_forever()
