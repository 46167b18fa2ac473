// Beast and Asio's TLS layer compiled once, for the client library and the
// gateway simulator (both define BOOST_BEAST_SEPARATE_COMPILATION).
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
