# made when the installable headers are in place
