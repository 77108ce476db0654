# Copies schema file IN to OUT with its imports moved from lite/proto/ to kovra/proto/.
file(READ ${IN} text)
string(REPLACE "import \"lite/proto/" "import \"kovra/proto/" text "${text}")
file(WRITE ${OUT} "${text}")
