// The one translation unit that holds Asio's compiled code.
#include <boost/asio/impl/src.hpp>
