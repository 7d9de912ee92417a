# Versions of the two interfaces that a device maker implements; the last numbers of the libraries'
# sonames. What makes which one rise: docs/integrating.md.
set(NUVIO_CORE_INTERFACE 1)
set(NUVIO_HOST_INTERFACE 1)
