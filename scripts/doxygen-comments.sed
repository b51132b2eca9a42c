# Makes comments of the headers documentation for Doxygen: // and /* before a declaration, and behind one on its line.
s|^\( *\)// |\1/// |
s|^\( *\)//$|\1///|
s|\([^ /].*[,;{}a-z0-9)]\) *// |\1 ///< |
s|^\( *\)/\* |\1/** |
s|^/\*$|/**|
s|\([^ /].*[,;{}a-z0-9)]\) */\* |\1 /**< |
