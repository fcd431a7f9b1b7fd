<?php
// A form whose answer is computed by the page itself: the field comes back as text, the file as
// its name, size and checksum.
function text(string $value): string
{
    return htmlspecialchars($value, ENT_QUOTES | ENT_SUBSTITUTE, 'UTF-8');
}
?>
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>PHP through Velkoro</title>
</head>
<body>
<h1>PHP through Velkoro</h1>
<?php if (isset($_POST['name'])): ?>
<p id="greeting">Hello, <?= text($_POST['name']) ?>!</p>
<?php endif ?>
<?php if (is_uploaded_file($_FILES['file']['tmp_name'] ?? '')): ?>
<p id="file"><?= text($_FILES['file']['name']) ?>: <?= $_FILES['file']['size'] ?> bytes,
md5 <?= md5_file($_FILES['file']['tmp_name']) ?></p>
<?php endif ?>
<form method="post" enctype="multipart/form-data">
<p><label>Your name <input name="name" required></label></p>
<p><label>A file <input type="file" name="file"></label></p>
<p><button>Send</button></p>
</form>
</body>
</html>
