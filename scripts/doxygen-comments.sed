# Makes comments of the headers documentation for Doxygen: // and /* before a declaration, and behind one on its line.
s|^\( *\)// |\1/// |
# The first line begins the page of its file.
1s|^// |/// \\file\n/// |
1s|^/\*$|/** \\file|
s|\(/// .*\)<\([a-z_]*\)>|\1\\<\2\\>|
s|^\( *\)//$|\1///|
s|\([^ /].*[,;{}a-z0-9)]\) *// |\1 ///< |
s|^\( *\)/\* |\1/** |
s|^/\*$|/**|
s|\([^ /].*[,;{}a-z0-9)]\) */\* |\1 /**< |
